// libFuzzer target for the translation file parser: each input is parsed as
// XML text held in memory and, as raw bytes whose encoding the reader detects
// itself, as a file, each time into a fresh table of languages.

#include "common/Logger.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationParser.h"
#include "translation/TranslationString.h"
#include "translation/TranslationText.h"

#include <QHash>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// Sanity rules every parse must keep; a violation aborts so the fuzzer
// records the input.
void check(bool condition)
{
    if (!condition) {
        abort();
    }
}

// Every entry is a language of its own id, and so is every string in it;
// every line index below the count gives a line.
void checkAndFree(QHash<QString, TranslationLanguage*>& languages)
{
    for (auto it = languages.cbegin(); it != languages.cend(); ++it) {
        const TranslationLanguage* language = it.value();
        check(language && !it.key().isEmpty() && language->getId() == it.key());
        for (const QString& id : language->getStringIds()) {
            const TranslationString* string = language->getString(id);
            check(string && !id.isEmpty() && string->getId() == id);
            for (int index = 0; index < string->getNumText(); ++index) {
                check(string->getText(index) != nullptr);
            }
        }
    }
    qDeleteAll(languages);
    languages.clear();
}

void parseText(const QString& text)
{
    QHash<QString, TranslationLanguage*> languages;
    TranslationParser parser(languages);
    parser.parseFromString(text);
    checkAndFree(languages);
}

// The parser reads a file by name; a memory file gives it one without
// touching the disk.
void parseFile(const uint8_t* data, size_t size)
{
    const int fd = memfd_create("selvane.xml", 0);
    if (fd < 0) {
        return;
    }
    if (write(fd, data, size) == static_cast<ssize_t>(size)) {
        QHash<QString, TranslationLanguage*> languages;
        TranslationParser parser(languages);
        parser.parse(QStringLiteral("/proc/self/fd/%1").arg(fd));
        checkAndFree(languages);
    }
    close(fd);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Messages are built and emitted, but no channel writes them anywhere.
    Orvanta::Logger::initialize();
    // Freed at exit, so the leak checker only reports what the parser loses.
    std::atexit([] { Orvanta::Logger::shutDown(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    parseText(QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size)));
    parseFile(data, size);
    return 0;
}
