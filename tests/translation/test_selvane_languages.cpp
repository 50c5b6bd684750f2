// The central object's table of languages, read from the translation file at
// its fixed path when the object is made. The test runs in a private mount
// namespace whose /usr/share/orvanta holds share/translations/selvane.xml.
#include "DaemonRunner.h"
#include "LogCapture.h"
#include "daemon/Selvane.h"
#include "input/InputKeyCode.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationString.h"
#include "translation/TranslationText.h"

#include <QtTest>

#include <memory>

namespace {

const QString translationFile = QStringLiteral("/usr/share/orvanta/translations/selvane.xml");

int indexOf(const QStringList& messages, const QString& start)
{
    for (int i = 0; i < messages.size(); ++i) {
        if (messages.at(i).startsWith(start)) {
            return i;
        }
    }
    return -1;
}

} // namespace

class SelvaneLanguagesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QFile::exists(translationFile), "the test's data folder is not in place");
        QVERIFY(dir.isValid());
        InputKeyCode::buildTable();
        config = dir.filePath("keys.conf");
        QFile file(config);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("KEY_LEFTCTRL:KEY_F1:true\n");
        file.close();
        log = std::make_unique<LogCapture>();
        selvane = std::make_unique<Selvane>(config);
    }

    void cleanupTestCase()
    {
        selvane.reset();
        log.reset();
        InputKeyCode::cleanupTable();
    }

    void fileIsReadAfterTheBusAndBeforeTheHandlers()
    {
        const QStringList messages = log->messages();
        const int connected = indexOf(messages, "Connection established");
        const int firstDuplicate = indexOf(messages, "Duplicate ");
        const int configuration = indexOf(messages, "Parsing config file ");
        QVERIFY2(connected >= 0 && firstDuplicate >= 0 && configuration >= 0,
                 qPrintable(messages.join('\n')));
        QVERIFY(connected < firstDuplicate);
        QVERIFY(firstDuplicate < configuration);
    }

    void problemsAreLoggedInFileOrder()
    {
        const QStringList expected{
            "Duplicate string 'configure-mouse' found.  The duplicate is being ignored",
            "Duplicate language 'en' found.  The duplicate is being ignored",
            "Missing attribute 'font_size'.  Defaulting to '12'.  File: '" + translationFile +
                "',  Depth: 'string'"};
        QStringList found;
        for (const LogCapture::Entry& entry : log->entries()) {
            if (entry.file == QLatin1String("TranslationParser") ||
                entry.file == QLatin1String("BaseParser")) {
                found.append(entry.message);
            }
        }
        QCOMPARE(found, expected);
    }

    void languagesOfTheFileAreThere()
    {
        QCOMPARE(selvane->getLanguageIds(), (QStringList{"de", "en", "pt_BR"}));
        const TranslationLanguage* german = selvane->getLanguage("de");
        QVERIFY(german);
        QCOMPARE(german->getId(), QStringLiteral("de"));
        const TranslationString* string = german->getString("configure-mouse");
        QVERIFY(string);
        QCOMPARE(string->getNumText(), 1);
        QCOMPARE(string->getText(0)->getText(), QStringLiteral("Klicken Sie die linke Maustaste"));
        // The duplicate English language added nothing.
        QVERIFY(!selvane->getLanguage("en")->getString("mice-assigned"));
        QCOMPARE(
            selvane->getLanguage("pt_BR")->getString("configure-mouse")->getText(0)->getFontSize(),
            12);
    }

    void unknownLanguageIsNullAndAddsNoEntry()
    {
        const QStringList before = selvane->getLanguageIds();
        QCOMPARE(selvane->getLanguage("xx"), nullptr);
        QCOMPARE(selvane->getLanguage(""), nullptr);
        // Ids are whole names: no prefix or case folding.
        QCOMPARE(selvane->getLanguage("pt"), nullptr);
        QCOMPARE(selvane->getLanguage("DE"), nullptr);
        QCOMPARE(selvane->getLanguageIds(), before);
    }

private:
    QTemporaryDir dir;
    QString config;
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<Selvane> selvane;
};

// A private dbus-daemon is this test's session bus; without one the test is skipped.
int main(int argc, char* argv[])
{
    return runOnPrivateBus<QCoreApplication, SelvaneLanguagesTest>(argc, argv);
}

#include "test_selvane_languages.moc"
