// The built daemon reads its translation file at start, from the outside: it
// logs what is wrong with the file and runs on whatever the file held.
#include "DaemonRunner.h"
#include "TestFiles.h"

#include <QDir>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <memory>

namespace {

const QString translationFile = QStringLiteral("/usr/share/orvanta/translations/selvane.xml");

const QRegularExpression keysParsedLine = DaemonRunner::logLine(
    "Info", "AssignedDeviceHandler:parseConfigFile", "Parsed 1 key sequence(s).");
const QRegularExpression establishedLine =
    DaemonRunner::logLine("Info", "DBusInterface:connect", "Connection established");
const QRegularExpression exitLine =
    DaemonRunner::logLine("Info", "Main:main", "selvane is exiting with exit code 0");

int indexOf(const QStringList& lines, const QRegularExpression& pattern)
{
    for (int i = 0; i < lines.size(); ++i) {
        if (pattern.match(lines.at(i)).hasMatch()) {
            return i;
        }
    }
    return -1;
}

} // namespace

class TranslationBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        runner = std::make_unique<DaemonRunner>();
        QVERIFY(runner->isBusRunning());
        config = runner->path("keys.conf");
        QVERIFY(writeFile(config, "KEY_LEFTCTRL:KEY_F1:true\n"));
    }
    void cleanup() { runner.reset(); }

    void missingFileIsLoggedAndTheDaemonRunsOn()
    {
        const QStringList lines = startDaemon();
        const int missing =
            indexOf(lines, DaemonRunner::logLine("Error", "BaseParser:parse",
                                                 "File '" + translationFile + "' does not exist"));
        QVERIFY2(missing >= 0, qPrintable(lines.join('\n')));
        QVERIFY(indexOf(lines, establishedLine) < missing);
        QVERIFY(missing < indexOf(lines, keysParsedLine));
        stopDaemon();
    }

    void malformedFileLogsTheFatalErrorWithLineAndColumn()
    {
        writeShareFile("<?xml version=\"1.0\"?>\n"
                       "<translations>\n"
                       "  <language id=\"en\">\n"
                       "    <string id=\"configure-mouse\">\n"
                       "  </language>\n"
                       "</translations>\n");
        const QStringList lines = startDaemon();
        const int fatal = indexOf(
            lines, DaemonRunner::logLine("Error", "BaseParser:fatalError:337",
                                         "Parser fatal error on line 5, column 13 in file " +
                                             translationFile + ": tag mismatch"));
        QVERIFY2(fatal >= 0, qPrintable(lines.join('\n')));
        QVERIFY(fatal < indexOf(lines, keysParsedLine));
        stopDaemon();
    }

    void duplicatesAreLoggedInFileOrder()
    {
        writeShareFile("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<texts>\n"
                       "  <language id=\"fr\">\n"
                       "    <string id=\"mice-available\"><text value=\"Souris : %1\"/></string>\n"
                       "    <string id=\"mice-available\"/>\n"
                       "  </language>\n"
                       "  <language id=\"fr\"/>\n"
                       "  <language id=\"\"/>\n"
                       "</texts>\n");
        const QStringList lines = startDaemon();
        const QList<QRegularExpression> expected{
            DaemonRunner::logLine("Warning", "BaseParser:logMissingAttribute",
                                  "Missing attribute 'font_size'.  Defaulting to '12'.  File: '" +
                                      translationFile + "',  Depth: 'string'"),
            DaemonRunner::logLine("Warning", "BaseParser:logMissingAttribute",
                                  "Missing attribute 'pos_x'.  Defaulting to '0'.  File: '" +
                                      translationFile + "',  Depth: 'string'"),
            DaemonRunner::logLine("Warning", "BaseParser:logMissingAttribute",
                                  "Missing attribute 'pos_y'.  Defaulting to '0'.  File: '" +
                                      translationFile + "',  Depth: 'string'"),
            DaemonRunner::logLine(
                "Warning", "TranslationParser:startElement",
                "Duplicate string 'mice-available' found.  The duplicate is being ignored"),
            DaemonRunner::logLine("Warning", "TranslationParser:startElement",
                                  "Duplicate language 'fr' found.  The duplicate is being ignored"),
            DaemonRunner::logLine("Warning", "BaseParser:logMissingAttribute",
                                  "Missing attribute 'id'.  Defaulting to ''.  File: '" +
                                      translationFile + "',  Depth: 'top'"),
            DaemonRunner::logLine("Warning", "TranslationParser:startElement", "id is empty"),
        };
        int previous = indexOf(lines, establishedLine);
        QVERIFY(previous >= 0);
        for (const QRegularExpression& pattern : expected) {
            const int index = indexOf(lines, pattern);
            QVERIFY2(index == previous + 1,
                     qPrintable(pattern.pattern() + "\n" + lines.join('\n')));
            previous = index;
        }
        QVERIFY(indexOf(lines, keysParsedLine) > previous);
        stopDaemon();
    }

private:
    void writeShareFile(const QByteArray& content)
    {
        const QString share = runner->path("share");
        QVERIFY(QDir().mkpath(share + "/translations"));
        QVERIFY(writeFile(share + "/translations/selvane.xml", content));
        runner->setShareDir(share);
    }

    // Starts the daemon and returns its log once the key configuration,
    // which comes after the translations, has been read.
    QStringList startDaemon()
    {
        daemon = runner->startDaemon({"-c", config}, keysParsedLine);
        return DaemonRunner::readLines(runner->defaultLogFile());
    }

    // The daemon is still running: it answers SIGTERM and exits normally.
    void stopDaemon()
    {
        QVERIFY(daemon > 0);
        QCOMPARE(kill(daemon, 0), 0);
        QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);
        QVERIFY(DaemonRunner::waitForLine(runner->defaultLogFile(), exitLine));
    }

    std::unique_ptr<DaemonRunner> runner;
    QString config;
    pid_t daemon = 0;
};

SELVANE_DAEMON_TEST_MAIN(TranslationBlackboxTest)
#include "test_translation_blackbox.moc"
