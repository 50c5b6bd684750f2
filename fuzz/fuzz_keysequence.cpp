// libFuzzer target for the key configuration parser: each input is handed to
// the line parser as one configuration line, to the key field parser, and, as
// the content of a whole configuration file, to the handler's file reader
// (which cuts lines into pieces of at most 255 characters).

#include "common/Logger.h"
#include "input/InputKeyCode.h"
#include "sequences/AssignedDeviceHandler.h"
#include "sequences/KeySequence.h"

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

void checkKeys(const QVector<const InputKeyCode*>& keys)
{
    for (const InputKeyCode* key : keys) {
        check(key && InputKeyCode::keyCodeFindByName(key->getName()) == key);
    }
}

void parseLine(const QString& line)
{
    const KeySequence sequence(line);
    checkKeys(sequence.getHoldKeys());
    checkKeys(sequence.getPressKeys());
    if (sequence.isValid()) {
        const int first = line.indexOf(QLatin1Char(':'));
        const int second = line.indexOf(QLatin1Char(':'), first + 1);
        check(first >= 0 && second > first);
        check(!sequence.getCommand().isEmpty());
        check(sequence.getCommand() == line.mid(second + 1));
    }

    bool ok = false;
    const QVector<const InputKeyCode*> keys = KeySequence::parseKeys(line, &ok);
    checkKeys(keys);
    check(ok || !line.isEmpty());
}

// The handler reads its file by name; a memory file gives it one without
// touching the disk.
void parseFile(const uint8_t* data, size_t size)
{
    const int fd = memfd_create("keys.conf", 0);
    if (fd < 0) {
        return;
    }
    if (write(fd, data, size) == static_cast<ssize_t>(size)) {
        const AssignedDeviceHandler handler(QStringLiteral("/proc/self/fd/%1").arg(fd));
    }
    close(fd);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Messages are built and emitted, but no channel writes them anywhere.
    Orvanta::Logger::initialize();
    InputKeyCode::buildTable();
    // Freed at exit, so the leak checker only reports what the parser loses.
    std::atexit([] {
        InputKeyCode::cleanupTable();
        Orvanta::Logger::shutDown();
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The daemon reads its configuration byte for byte as Latin-1.
    parseLine(QString::fromLatin1(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    parseFile(data, size);
    return 0;
}
