#include "DaemonRunner.h"
#include "LogCapture.h"
#include "TestFiles.h"

#include <QDBusConnection>
#include <QElapsedTimer>
#include <QMutex>
#include <QMutexLocker>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <csignal>
#include <cstdio>

using Orvanta::Logger;

namespace {
const QString receiverService = QStringLiteral("com.orvanta.test.LogReceiver");
const QString receiverPath = QStringLiteral("/log");
const QString loggerConnection = QStringLiteral("logger");
const QString receiverConnection = QStringLiteral("receiver");
const QString hungReceiverService = QStringLiteral("com.orvanta.test.HungReceiver");
// Run with this variable set to a bus address, the test program plays a hung
// receiver on that bus.
const char hungReceiverVariable[] = "SELVANE_HUNG_RECEIVER_BUS";

// Takes the receiver's name, says so on standard output, and stops.
int playHungReceiver(const QString& busAddress)
{
    QDBusConnection connection = QDBusConnection::connectToBus(busAddress, "hung");
    if (!connection.registerService(hungReceiverService)) {
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    raise(SIGSTOP);
    return 0;
}
} // namespace

// The remote end of the logger's D-Bus channel. It lives on a thread of its
// own, so it can answer while the logger's blocking call holds the main thread.
class LogReceiver : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orvanta.test.LogReceiver")

public:
    QList<QStringList> calls() const
    {
        QMutexLocker locker(&mutex);
        return recorded;
    }

public Q_SLOTS:
    void Log(const QString& source, const QString& level, const QString& line)
    {
        QMutexLocker locker(&mutex);
        recorded.append({source, level, line});
    }

private:
    mutable QMutex mutex;
    QList<QStringList> recorded;
};

class LoggerDBusTest : public QObject
{
    Q_OBJECT

public:
    // False when no private bus can be started; the test is then skipped.
    bool startBus()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty()) {
            return false;
        }
        bus.start(QStringLiteral("dbus-daemon"),
                  {QStringLiteral("--session"), QStringLiteral("--nofork"),
                   QStringLiteral("--print-address=1")});
        if (!bus.waitForStarted() || !bus.waitForReadyRead(10000)) {
            return false;
        }
        address = QString::fromLatin1(bus.readLine().trimmed());
        return !address.isEmpty();
    }

    ~LoggerDBusTest() override
    {
        bus.terminate();
        bus.waitForFinished();
    }

private:
    QProcess bus;
    QString address;
    QThread receiverThread;
    LogReceiver* receiver = nullptr;

    void registerReceiver()
    {
        QDBusConnection connection(receiverConnection);
        QVERIFY(connection.registerObject(receiverPath, receiver, QDBusConnection::ExportAllSlots));
        QVERIFY(connection.registerService(receiverService));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QDBusConnection::connectToBus(address, loggerConnection).isConnected());
        QVERIFY(QDBusConnection::connectToBus(address, receiverConnection).isConnected());
        receiverThread.start();
    }

    void cleanupTestCase()
    {
        receiverThread.quit();
        receiverThread.wait();
        QDBusConnection::disconnectFromBus(loggerConnection);
        QDBusConnection::disconnectFromBus(receiverConnection);
    }

    void init()
    {
        receiver = new LogReceiver;
        receiver->moveToThread(&receiverThread);
        Logger::shutDown();
        Logger::initialize();
    }

    void cleanup()
    {
        Logger::shutDown();
        QDBusConnection connection(receiverConnection);
        connection.unregisterService(receiverService);
        connection.unregisterObject(receiverPath);
        receiver->deleteLater();
        receiver = nullptr;
    }

    void sendsSourceLevelAndFormattedLine()
    {
        registerReceiver();
        Logger::enableDBusChannel(Logger::LEVEL_INFO, loggerConnection, receiverService,
                                  receiverPath, QStringLiteral("selvane"), QStringLiteral("Log"));
        Logger::write(Logger::LEVEL_WARNING, "File", "func", 12, QStringLiteral("over the bus"));

        // The call blocks until the receiver has answered.
        const QList<QStringList> calls = receiver->calls();
        QCOMPARE(calls.size(), 1);
        QCOMPARE(calls[0].size(), 3);
        QCOMPARE(calls[0][0], QStringLiteral("selvane"));
        QCOMPARE(calls[0][1], QStringLiteral("Warning"));
        QVERIFY2(QRegularExpression(R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] )"
                                    R"(\[Warning\] \[File:func:12\] over the bus$)")
                     .match(calls[0][2])
                     .hasMatch(),
                 qPrintable(calls[0][2]));
    }

    void respectsItsThreshold()
    {
        registerReceiver();
        Logger::enableDBusChannel(Logger::LEVEL_INFO, loggerConnection, receiverService,
                                  receiverPath, QStringLiteral("selvane"), QStringLiteral("Log"));
        Logger::write(Logger::LEVEL_BUG, "T", "f", 1, QStringLiteral("bug"));
        Logger::write(Logger::LEVEL_DEBUG, "T", "f", 1, QStringLiteral("debug"));
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("info"));
        const QList<QStringList> calls = receiver->calls();
        QCOMPARE(calls.size(), 1);
        QCOMPARE(calls[0][1], QStringLiteral("Info"));
        QVERIFY(calls[0][2].endsWith("] [Info] [T:f:1] info"));
    }

    void connectsOnALaterLineWhenTheServiceAppears()
    {
        LogCapture capture;
        Logger::enableDBusChannel(Logger::LEVEL_DEBUG, loggerConnection, receiverService,
                                  receiverPath, QStringLiteral("selvane"), QStringLiteral("Log"));
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("dropped"));
        registerReceiver();
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("delivered"));
        const QList<QStringList> calls = receiver->calls();
        QCOMPARE(calls.size(), 1);
        QVERIFY(calls[0][2].endsWith("] [Info] [T:f:1] delivered"));
        // The signal saw both lines; only the bus missed the first.
        QCOMPARE(capture.messages(), (QStringList{"dropped", "delivered"}));
    }

    void unknownConnectionNameDropsTheLines()
    {
        registerReceiver();
        LogCapture capture;
        Logger::enableDBusChannel(Logger::LEVEL_DEBUG, QStringLiteral("no-such-connection"),
                                  receiverService, receiverPath, QStringLiteral("selvane"),
                                  QStringLiteral("Log"));
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("nowhere"));
        QVERIFY(receiver->calls().isEmpty());
        QCOMPARE(capture.messages(), QStringList{"nowhere"});
    }

    void emptySourceNameNeverConnects()
    {
        registerReceiver();
        Logger::enableDBusChannel(Logger::LEVEL_DEBUG, loggerConnection, receiverService,
                                  receiverPath, QString(), QStringLiteral("Log"));
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("anonymous"));
        QVERIFY(receiver->calls().isEmpty());
    }

    void aHungReceiverHoldsALineForTwoSecondsAtMost()
    {
        // The receiver owns its name, then stops (SIGSTOP): it answers nothing,
        // not even an introspection, as a hung service.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(hungReceiverVariable, address);
        QProcess hung;
        hung.setProcessEnvironment(environment);
        hung.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        hung.start(QCoreApplication::applicationFilePath(), QStringList());
        QVERIFY(hung.waitForReadyRead(10000));
        QCOMPARE(hung.readAll(), QByteArray("ready\n"));
        const QString stat = QStringLiteral("/proc/%1/stat").arg(hung.processId());
        QVERIFY(DaemonRunner::waitUntil([&] {
            const QByteArray status = readFile(stat);
            const qsizetype close = status.lastIndexOf(')');
            return close > 0 && status.mid(close + 2, 1) == "T";
        }));

        QTemporaryDir dir;
        const QString logFile = dir.filePath(QStringLiteral("hung.log"));
        Logger::enableFileChannel(Logger::LEVEL_DEBUG, logFile, false);
        QElapsedTimer timer;
        timer.start();
        Logger::enableDBusChannel(Logger::LEVEL_DEBUG, loggerConnection, hungReceiverService,
                                  receiverPath, QStringLiteral("selvane"), QStringLiteral("Log"));
        Logger::write(Logger::LEVEL_INFO, "T", "f", 1, QStringLiteral("unanswered"));
        const qint64 elapsed = timer.elapsed();
        hung.kill();
        hung.waitForFinished();

        // The line waited for an answer until the time-out, far below Qt's
        // default of 25 seconds, and no longer.
        QVERIFY2(elapsed >= 1500 && elapsed < 5000, qPrintable(QString::number(elapsed)));
        QVERIFY(readFile(logFile).endsWith("] [Info] [T:f:1] unanswered\n"));
    }

    void levelZeroKeepsTheChannelOff()
    {
        registerReceiver();
        Logger::enableDBusChannel(Logger::LEVEL_DISABLED, loggerConnection, receiverService,
                                  receiverPath, QStringLiteral("selvane"), QStringLiteral("Log"));
        Logger::write(Logger::LEVEL_ERROR, "T", "f", 1, QStringLiteral("off"));
        QVERIFY(receiver->calls().isEmpty());
    }
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QString hungReceiverBus = qEnvironmentVariable(hungReceiverVariable);
    if (!hungReceiverBus.isEmpty()) {
        return playHungReceiver(hungReceiverBus);
    }
    LoggerDBusTest test;
    if (!test.startBus()) {
        std::fprintf(stderr, "SKIP: no private dbus-daemon could be started\n");
        return 77;
    }
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_logger_dbus.moc"
