#include "LogCapture.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

using Orvanta::Logger;

namespace {

QByteArray readAll(const QString& fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Collects what is written to standard error while it lives.
class StderrCapture
{
public:
    StderrCapture()
    {
        fflush(stderr);
        savedFd = dup(STDERR_FILENO);
        capture = tmpfile();
        dup2(fileno(capture), STDERR_FILENO);
    }
    ~StderrCapture() { restore(); }

    QByteArray text()
    {
        restore();
        rewind(capture);
        QByteArray bytes;
        char buffer[4096];
        size_t count;
        while ((count = fread(buffer, 1, sizeof(buffer), capture)) > 0) {
            bytes.append(buffer, static_cast<qsizetype>(count));
        }
        return bytes;
    }

private:
    void restore()
    {
        if (savedFd >= 0) {
            fflush(stderr);
            dup2(savedFd, STDERR_FILENO);
            close(savedFd);
            savedFd = -1;
        }
    }

    int savedFd = -1;
    FILE* capture = nullptr;
};

const QRegularExpression lineFormat(QStringLiteral(
    R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] \[Info\] \[File:func:12\] text$)"));

} // namespace

class LoggerTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;

    QString file(const QString& name) const { return dir.filePath(name); }

private Q_SLOTS:
    void init()
    {
        Logger::shutDown();
        Logger::initialize();
    }

    void cleanup() { Logger::shutDown(); }

    void writesNothingAndPrintsNothingBeforeInitialize()
    {
        Logger::shutDown();
        QVERIFY(!Logger::getInstance());
        StderrCapture stderrCapture;
        Logger::write(Logger::LEVEL_ERROR, "Test", "fn", 1, QStringLiteral("text form"));
        // The arguments must not even be formatted: formatting this one would crash.
        Logger::write(Logger::LEVEL_ERROR, "Test", "fn", 2, "%s", reinterpret_cast<const char*>(1));
        QCOMPARE(stderrCapture.text(), QByteArray());
        QVERIFY(!Logger::getInstance());
    }

    void metaObjectNamesTheClassAndItsSignal()
    {
        const QMetaObject& meta = Logger::staticMetaObject;
        QCOMPARE(meta.className(), "Orvanta::Logger");
        const int index =
            meta.indexOfSignal("message(QString,Logger::Level,QString,QString,int,QString)");
        QVERIFY(index >= 0);
        QCOMPARE(meta.method(index).parameterNames(),
                 (QList<QByteArray>{"time", "level", "file", "function", "line", "mesg"}));
    }

    void initializeTwiceKeepsTheInstance()
    {
        Logger* first = Logger::getInstance();
        QVERIFY(first);
        Logger::initialize();
        QCOMPARE(Logger::getInstance(), first);
    }

    void shutDownClearsTheInstance()
    {
        Logger::shutDown();
        QCOMPARE(Logger::getInstance(), nullptr);
        Logger::shutDown();
        QCOMPARE(Logger::getInstance(), nullptr);
    }

    void printfFormIsCutAt1022Characters()
    {
        LogCapture capture;
        const QByteArray longText(2000, 'x');
        Logger::write(Logger::LEVEL_INFO, "Test", "fn", 1, "%s", longText.constData());
        QCOMPARE(capture.entries().size(), 1);
        QCOMPARE(capture.entries().first().message, QString(1022, QLatin1Char('x')));
    }

    void printfFormKeepsA1022CharacterMessageWhole()
    {
        LogCapture capture;
        const QByteArray text = QByteArray(1021, 'y') + 'z';
        Logger::write(Logger::LEVEL_INFO, "Test", "fn", 1, "%s", text.constData());
        QCOMPARE(capture.entries().first().message, QString::fromLatin1(text));
    }

    void printfFormFormatsItsArguments()
    {
        LogCapture capture;
        Logger::write(Logger::LEVEL_INFO, "Test", "fn", 1, "Parsed %d key sequence(s) from %s.", 3,
                      "keys.conf");
        QCOMPARE(capture.messages(), QStringList{"Parsed 3 key sequence(s) from keys.conf."});
    }

    void messageContainingPlaceholdersIsWrittenUnchanged()
    {
        const QString logFile = file("placeholders.log");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, false);
        LogCapture capture;
        const QString text = QStringLiteral("100%1 done, %2 left, %% and %6");
        Logger::write(Logger::LEVEL_INFO, "File", "func", 12, text);
        QCOMPARE(capture.messages(), QStringList{text});
        const QString line = QString::fromLatin1(readAll(logFile));
        QVERIFY2(line.endsWith("] [Info] [File:func:12] " + text + "\n"), qPrintable(line));
    }

    void fileLineHasTheDocumentedFormat()
    {
        const QString logFile = file("format.log");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, false);
        Logger::write(Logger::LEVEL_INFO, "File", "func", 12, QStringLiteral("text"));
        const QByteArray bytes = readAll(logFile);
        QVERIFY(bytes.endsWith('\n'));
        QCOMPARE(bytes.count('\n'), 1);
        const QString line = QString::fromLatin1(bytes.chopped(1));
        QVERIFY2(lineFormat.match(line).hasMatch(), qPrintable(line));
    }

    void signalCarriesTheRawMessageAndItsOrigin()
    {
        LogCapture capture;
        Logger::write(Logger::LEVEL_BUG, "EventDevice", "readEvents", 77,
                      QStringLiteral("eventDevice is NULL"));
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& entry = capture.entries().first();
        QCOMPARE(entry.level, Logger::LEVEL_BUG);
        QCOMPARE(entry.file, QStringLiteral("EventDevice"));
        QCOMPARE(entry.function, QStringLiteral("readEvents"));
        QCOMPARE(entry.line, 77);
        QCOMPARE(entry.message, QStringLiteral("eventDevice is NULL"));
        QVERIFY(QRegularExpression(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}$)")
                    .match(entry.time)
                    .hasMatch());
    }

    void signalIsEmittedWhateverTheThresholds()
    {
        LogCapture capture;
        Logger::write(Logger::LEVEL_DEBUG, "Test", "fn", 1, QStringLiteral("unheard"));
        QCOMPARE(capture.messages(), QStringList{"unheard"});
    }

    void levelAboveDebugIsDropped()
    {
        const QString logFile = file("above.log");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, false);
        LogCapture capture;
        Logger::write(static_cast<Logger::Level>(6), "Test", "fn", 1, QStringLiteral("six"));
        QVERIFY(capture.entries().isEmpty());
        QCOMPARE(readAll(logFile), QByteArray());
    }

    void negativeLevelPassesEveryChannel()
    {
        const QString logFile = file("negative.log");
        Logger::enableFileChannel(Logger::LEVEL_ERROR, logFile, false);
        StderrCapture stderrCapture;
        Logger::write(static_cast<Logger::Level>(-1), "Test", "fn", 1, QStringLiteral("minus"));
        // Even the standard-output channel, whose threshold is 0, takes it.
        QVERIFY(stderrCapture.text().endsWith("] [Debug] [Test:fn:1] minus\n"));
        QVERIFY(readAll(logFile).endsWith("] [Debug] [Test:fn:1] minus\n"));
    }

    void levelZeroPassesEveryChannelEvenAnOffOne()
    {
        const QString logFile = file("zero.log");
        Logger::enableFileChannel(Logger::LEVEL_ERROR, logFile, false);
        StderrCapture stderrCapture;
        Logger::write(Logger::LEVEL_DISABLED, "Test", "fn", 1, QStringLiteral("zero"));
        // 0 <= 0: the standard-output channel, which is off, takes it too.
        QVERIFY(stderrCapture.text().endsWith("] [Disabled] [Test:fn:1] zero\n"));
        QVERIFY(readAll(logFile).endsWith("] [Disabled] [Test:fn:1] zero\n"));
    }

    void fileThresholdFiltersByLevel()
    {
        const QString logFile = file("threshold.log");
        Logger::enableFileChannel(Logger::LEVEL_INFO, logFile, false);
        Logger::write(Logger::LEVEL_ERROR, "T", "f", 1, QStringLiteral("error"));
        Logger::write(Logger::LEVEL_WARNING, "T", "f", 1, QStringLiteral("warning"));
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("info"));
        Logger::write(Logger::LEVEL_BUG, "T", "f", 1, QStringLiteral("bug"));
        Logger::write(Logger::LEVEL_DEBUG, "T", "f", 1, QStringLiteral("debug"));
        const QList<QByteArray> lines = readAll(logFile).trimmed().split('\n');
        QCOMPARE(lines.size(), 3);
        QVERIFY(lines[0].endsWith("] [Error] [T:f:1] error"));
        QVERIFY(lines[1].endsWith("] [Warning] [T:f:1] warning"));
        QVERIFY(lines[2].endsWith("] [Info] [T:f:1] info"));
    }

    void fileLineAlreadyEndingInNewlineGetsNoSecondOne()
    {
        const QString logFile = file("newline.log");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, false);
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("ends here\n"));
        QVERIFY(readAll(logFile).endsWith("] [Info] [T:f:1] ends here\n"));
        QCOMPARE(readAll(logFile).count('\n'), 1);
    }

    void logfileOpenedReachesTheSignalButNotTheFile()
    {
        // A relative name: the announced path is the absolute one.
        const QString previous = QDir::currentPath();
        QVERIFY(QDir::setCurrent(dir.path()));
        LogCapture capture;
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, QStringLiteral("relative.log"), false);
        QDir::setCurrent(previous);

        const QString expected = "Logfile opened: " + QDir(dir.path()).filePath("relative.log");
        const LogCapture::Entry* entry = capture.find(expected);
        QVERIFY2(entry, qPrintable(capture.messages().join('\n')));
        QCOMPARE(entry->level, Logger::LEVEL_INFO);
        QCOMPARE(entry->file, QStringLiteral("Logger"));
        QCOMPARE(entry->function, QStringLiteral("enableFileChannel"));
        QVERIFY(QFile::exists(file("relative.log")));
        QCOMPARE(readAll(file("relative.log")), QByteArray());
    }

    void logfileOpenedReachesTheStandardOutputChannel()
    {
        Logger::enableStandardOutputChannel(Logger::LEVEL_INFO);
        StderrCapture stderrCapture;
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, file("announced.log"), false);
        const QString printed = QString::fromLatin1(stderrCapture.text());
        const QRegularExpression expected(
            R"(^\[[-0-9 :.]{23}\] \[Info\] \[Logger:enableFileChannel:\d+\] Logfile opened: )" +
            QRegularExpression::escape(file("announced.log")) + "\n$");
        QVERIFY2(expected.match(printed).hasMatch(), qPrintable(printed));
    }

    void secondEnableWithAnotherFileKeepsTheFirstFile()
    {
        const QString first = file("first.log");
        const QString second = file("second.log");
        Logger::enableFileChannel(Logger::LEVEL_INFO, first, false);
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, second, false);
        Logger::write(Logger::LEVEL_DEBUG, "T", "f", 1, QStringLiteral("still the first"));
        QVERIFY(readAll(first).endsWith("] [Debug] [T:f:1] still the first\n"));
        QVERIFY(!QFile::exists(second));
    }

    void disablingClosesTheFileAndAllowsAnotherOne()
    {
        const QString first = file("closed.log");
        const QString second = file("reopened.log");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, first, false);
        Logger::enableFileChannel(Logger::LEVEL_DISABLED, QString(), false);
        Logger::write(Logger::LEVEL_ERROR, "T", "f", 1, QStringLiteral("nowhere"));
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, second, false);
        Logger::write(Logger::LEVEL_ERROR, "T", "f", 1, QStringLiteral("second file"));
        QCOMPARE(readAll(first), QByteArray());
        QVERIFY(readAll(second).endsWith("] [Error] [T:f:1] second file\n"));
    }

    void appendKeepsAndTruncateDropsEarlierContent()
    {
        const QString logFile = file("append.log");
        {
            QFile existing(logFile);
            QVERIFY(existing.open(QIODevice::WriteOnly));
            existing.write("earlier line\n");
        }
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, true);
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("appended"));
        QVERIFY(readAll(logFile).startsWith("earlier line\n["));

        Logger::shutDown();
        Logger::initialize();
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, false);
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("alone"));
        const QByteArray bytes = readAll(logFile);
        QCOMPARE(bytes.count('\n'), 1);
        QVERIFY(bytes.endsWith("] [Info] [T:f:1] alone\n"));
    }

    void emptyFileNameOpensNothing()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        LogCapture capture;
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, QString(), true);
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("no file"));
        QCOMPARE(capture.messages(), QStringList{"no file"});
    }

    void disablingAChannelThatNeverOpenedAFileIsQuiet()
    {
        // Without a file there is nothing to flush or close, and Qt must not
        // be asked to (it would complain about a file that is not open).
        // As in the daemon, Qt's complaints would reach the log.
        LogCapture capture;
        const QtMessageHandler testHandler = qInstallMessageHandler(nullptr);
        Logger::forwardQtMessages();
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, QString(), true);
        Logger::enableFileChannel(Logger::LEVEL_DISABLED, QString(), true);
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, file("missing-dir/selvane.log"), true);
        Logger::enableFileChannel(Logger::LEVEL_DISABLED, QString(), true);
        qInstallMessageHandler(testHandler);
        QCOMPARE(capture.messages().join('\n'), QString());
    }

    void unopenableFileIsSilentlyIgnored()
    {
        // Not even Qt may complain about the lost lines.
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        LogCapture capture;
        const QString logFile = file("missing-dir/selvane.log");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, true);
        // Later enables only change the threshold: the channel counts as on.
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, file("other.log"), true);
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("lost"));
        QCOMPARE(capture.messages(), QStringList{"lost"});
        QVERIFY(!QFile::exists(logFile));
        QVERIFY(!QFile::exists(file("other.log")));
    }

    void reopeningFollowsAMovedFileWithANewOneAtTheSamePath()
    {
        const QString logFile = file("rotated.log");
        const QString moved = file("rotated.log.1");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, true);
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("before"));
        QVERIFY(QFile::rename(logFile, moved));
        Logger::write(Logger::LEVEL_INFO, "T", "f", 2, QStringLiteral("after the move"));
        LogCapture capture;
        Logger::reopenFileChannel();
        Logger::write(Logger::LEVEL_INFO, "T", "f", 3, QStringLiteral("reopened"));

        // Until the reopening, lines go to the file that was open, whatever its name.
        const QByteArray old = readAll(moved);
        QVERIFY(old.contains("] [T:f:1] before\n"));
        QVERIFY(old.endsWith("] [T:f:2] after the move\n"));
        const QList<QByteArray> lines = readAll(logFile).split('\n');
        QCOMPARE(lines.size(), 3); // two lines and the empty rest after the last newline
        QVERIFY(lines.at(0).contains("] [Info] [Logger:reopenFileChannel:"));
        QVERIFY(lines.at(0).endsWith("] Logfile reopened: " + QFile::encodeName(logFile)));
        QVERIFY(lines.at(1).endsWith("] [T:f:3] reopened"));
        QCOMPARE(capture.messages().first(), "Logfile reopened: " + logFile);
    }

    void reopeningAppendsToAnExistingFile()
    {
        // logrotate's "create" puts an empty file in place before the reopening;
        // a file someone else already wrote to is appended to, never truncated.
        const QString logFile = file("created.log");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, false);
        QVERIFY(QFile::rename(logFile, file("created.log.1")));
        {
            QFile created(logFile);
            QVERIFY(created.open(QIODevice::WriteOnly));
            created.write("created line\n");
        }
        Logger::reopenFileChannel();
        QVERIFY(readAll(logFile).startsWith("created line\n["));
    }

    void reopeningAnUnopenableNameKeepsTheOpenFile()
    {
        QTemporaryDir logDir;
        const QString logFile = logDir.filePath("kept.log");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, true);
        const QString moved = file("kept.log.moved");
        QVERIFY(QFile::rename(logFile, moved));
        QVERIFY(logDir.remove());
        LogCapture capture;
        Logger::reopenFileChannel();
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("still written"));
        QCOMPARE(capture.messages(),
                 (QStringList{"Could not reopen logfile " + logFile, "still written"}));
        QCOMPARE(capture.entries().first().level, Logger::LEVEL_ERROR);
        const QByteArray kept = readAll(moved);
        QVERIFY(kept.contains("] [Error] [Logger:reopenFileChannel:"));
        QVERIFY(kept.endsWith("] [T:f:1] still written\n"));
    }

    void reopeningAChannelThatIsOffOrHasNoNameDoesNothing()
    {
        LogCapture capture;
        Logger::reopenFileChannel();
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, QString(), true);
        Logger::reopenFileChannel();
        Logger::enableFileChannel(Logger::LEVEL_DISABLED, QString(), true);
        Logger::reopenFileChannel();
        QCOMPARE(capture.messages(), QStringList());
    }

    void standardOutputChannelWritesToStandardErrorUpToItsThreshold()
    {
        Logger::enableStandardOutputChannel(Logger::LEVEL_WARNING);
        StderrCapture stderrCapture;
        Logger::write(Logger::LEVEL_ERROR, "File", "func", 12, QStringLiteral("an error"));
        Logger::write(Logger::LEVEL_INFO, "File", "func", 12, QStringLiteral("an info"));
        Logger::write(Logger::LEVEL_WARNING, "File", "func", 12, QStringLiteral("a warning"));
        const QList<QByteArray> lines = stderrCapture.text().split('\n');
        QCOMPARE(lines.size(), 3);
        QVERIFY(lines[0].endsWith("] [Error] [File:func:12] an error"));
        QVERIFY(lines[1].endsWith("] [Warning] [File:func:12] a warning"));
        QCOMPARE(lines[2], QByteArray());
    }

    void standardOutputChannelIsOffByDefault()
    {
        StderrCapture stderrCapture;
        Logger::write(Logger::LEVEL_ERROR, "File", "func", 12, QStringLiteral("quiet"));
        QCOMPARE(stderrCapture.text(), QByteArray());
    }

    void levelToStringNamesEveryLevel()
    {
        QCOMPARE(Logger::levelToString(Logger::LEVEL_DISABLED), QStringLiteral("Disabled"));
        QCOMPARE(Logger::levelToString(Logger::LEVEL_ERROR), QStringLiteral("Error"));
        QCOMPARE(Logger::levelToString(Logger::LEVEL_WARNING), QStringLiteral("Warning"));
        QCOMPARE(Logger::levelToString(Logger::LEVEL_INFO), QStringLiteral("Info"));
        QCOMPARE(Logger::levelToString(Logger::LEVEL_BUG), QStringLiteral("Bug"));
        QCOMPARE(Logger::levelToString(Logger::LEVEL_DEBUG), QStringLiteral("Debug"));
    }

    void levelToStringOfAnInvalidLevelWarnsAndSaysDebug()
    {
        LogCapture capture;
        QCOMPARE(Logger::levelToString(static_cast<Logger::Level>(9)), QStringLiteral("Debug"));
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& entry = capture.entries().first();
        QCOMPARE(entry.message, QStringLiteral("level is invalid: 9"));
        QCOMPARE(entry.level, Logger::LEVEL_WARNING);
        QCOMPARE(entry.file, QStringLiteral("Logger"));
        QCOMPARE(entry.function, QStringLiteral("levelToString"));
    }

    void stringToLevelReadsEveryName()
    {
        LogCapture capture;
        QCOMPARE(Logger::stringToLevel("Disabled"), Logger::LEVEL_DISABLED);
        QCOMPARE(Logger::stringToLevel("Error"), Logger::LEVEL_ERROR);
        QCOMPARE(Logger::stringToLevel("Warning"), Logger::LEVEL_WARNING);
        QCOMPARE(Logger::stringToLevel("Info"), Logger::LEVEL_INFO);
        QCOMPARE(Logger::stringToLevel("Bug"), Logger::LEVEL_BUG);
        QCOMPARE(Logger::stringToLevel("Debug"), Logger::LEVEL_DEBUG);
        QVERIFY(capture.entries().isEmpty());
    }

    void stringToLevelOfLowerCaseDebugWarnsAndDefaultsToDebug()
    {
        LogCapture capture;
        QCOMPARE(static_cast<int>(Logger::stringToLevel("debug")), 5);
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& entry = capture.entries().first();
        QCOMPARE(entry.message, QStringLiteral("Could not decode string 'debug' to a level.  "
                                               "Defaulting to LEVEL_DEBUG"));
        QCOMPARE(entry.level, Logger::LEVEL_WARNING);
        QCOMPARE(entry.file, QStringLiteral("Logger"));
        QCOMPARE(entry.function, QStringLiteral("stringToLevel"));
    }

    void qtMessagesGoThroughTheLogger()
    {
        LogCapture capture;
        const QtMessageHandler testHandler = qInstallMessageHandler(nullptr);
        Logger::forwardQtMessages();
        qWarning("a warning from inside Qt");
        qInstallMessageHandler(testHandler);
        const LogCapture::Entry* entry = capture.find(QStringLiteral("a warning from inside Qt"));
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_WARNING);
        QCOMPARE(entry->file, QStringLiteral("Qt"));
        QCOMPARE(entry->function, QStringLiteral("default"));
    }

    void qtMessagesAreEscaped()
    {
        LogCapture capture;
        const QtMessageHandler testHandler = qInstallMessageHandler(nullptr);
        Logger::forwardQtMessages();
        qWarning("a call from the bus\n[forged] line");
        qInstallMessageHandler(testHandler);
        QVERIFY2(capture.find(QStringLiteral("a call from the bus\\n[forged] line")),
                 qPrintable(capture.messages().join(" | ")));
    }

    // The crash report writes to what these give, without the lock.
    void crashReportDescriptorsFollowTheChannels()
    {
        QCOMPARE(Logger::errorFileDescriptor(), -1);
        QVERIFY(!Logger::isStandardOutputTakingErrors());
        const QString logFile = file("crash-report.log");
        const QString moved = file("crash-report.log.1");
        Logger::enableFileChannel(Logger::LEVEL_ERROR, logFile, true);
        const auto inodeOf = [](int fd) {
            struct stat status = {};
            return fstat(fd, &status) == 0 ? status.st_ino : ino_t(0);
        };
        const auto inodeAt = [](const QString& path) {
            struct stat status = {};
            return stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_ino
                                                                           : ino_t(0);
        };
        QVERIFY(Logger::errorFileDescriptor() >= 0);
        QCOMPARE(inodeOf(Logger::errorFileDescriptor()), inodeAt(logFile));

        QVERIFY(QFile::rename(logFile, moved));
        Logger::reopenFileChannel();
        QVERIFY(Logger::errorFileDescriptor() >= 0);
        QCOMPARE(inodeOf(Logger::errorFileDescriptor()), inodeAt(logFile));
        QVERIFY(inodeAt(logFile) != inodeAt(moved));

        Logger::enableStandardOutputChannel(Logger::LEVEL_ERROR);
        QVERIFY(Logger::isStandardOutputTakingErrors());
        Logger::enableStandardOutputChannel(Logger::LEVEL_DISABLED);
        QVERIFY(!Logger::isStandardOutputTakingErrors());
        Logger::enableFileChannel(Logger::LEVEL_DISABLED, QString(), true);
        QCOMPARE(Logger::errorFileDescriptor(), -1);

        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, true);
        Logger::enableStandardOutputChannel(Logger::LEVEL_WARNING);
        Logger::shutDown();
        QCOMPARE(Logger::errorFileDescriptor(), -1);
        QVERIFY(!Logger::isStandardOutputTakingErrors());
    }

    void linesFromTwoThreadsStayWholeAndInOrder()
    {
        const QString logFile = file("threads.log");
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, false);
        constexpr int perThread = 10000;
        QThread* second = QThread::create([] {
            for (int i = 0; i < perThread; ++i) {
                Logger::write(Logger::LEVEL_INFO, "Second", "run", 2, "second thread line %d", i);
            }
        });
        second->start();
        for (int i = 0; i < perThread; ++i) {
            Logger::write(Logger::LEVEL_DEBUG, "Main", "run", 1,
                          QStringLiteral("main thread line %1").arg(i));
        }
        QVERIFY(second->wait(60000));
        delete second;

        const QList<QByteArray> lines = readAll(logFile).split('\n');
        // The file ends with a line end: the last piece is empty.
        QCOMPARE(lines.size(), 2 * perThread + 1);
        QVERIFY(lines.last().isEmpty());
        const QRegularExpression wellFormed(
            QStringLiteral(R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] )"
                           R"((?:\[Debug\] \[Main:run:1\] main|\[Info\] \[Second:run:2\] second))"
                           R"( thread line (\d+)$)"));
        int nextMain = 0;
        int nextSecond = 0;
        for (int i = 0; i < 2 * perThread; ++i) {
            const QString line = QString::fromLatin1(lines[i]);
            const QRegularExpressionMatch match = wellFormed.match(line);
            QVERIFY2(match.hasMatch(), qPrintable(line));
            // Each thread's lines come in the order it wrote them.
            int& next = line.contains(QStringLiteral("[Main:run:1]")) ? nextMain : nextSecond;
            QCOMPARE(match.captured(1).toInt(), next);
            ++next;
        }
        QCOMPARE(nextMain, perThread);
        QCOMPARE(nextSecond, perThread);
    }
};

QTEST_GUILESS_MAIN(LoggerTest)
#include "test_logger.moc"
