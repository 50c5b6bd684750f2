#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QDBusMessage>
#include <QHash>
#include <QList>
#include <QProcess>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariantList>
#include <QtTest>

#include <cstdio>
#include <functional>
#include <sys/types.h>

// Runs the built orvanta-selvane the way its users do, from the outside:
// through run-isolated.sh (private /run, /var/log and /usr/share) against a
// private session bus. The test process becomes a child subreaper, so the
// daemon child that the foreground process leaves behind when it exits is
// adopted by the test, which can then collect its exit status.
//
// On the host, the daemon's /run/orvanta is runDir() and its /var/log is
// logDir(); both live in the runner's temporary directory.
class DaemonRunner
{
public:
    static constexpr int defaultTimeoutMs = 10000;

    struct Result
    {
        int status = -1; // exit status, 128 + signal when killed, -1 on time-out
        QByteArray standardOutput;
        QByteArray standardError;
    };

    // Why the daemon cannot be run here (no private mount namespace, no
    // dbus-daemon), or an empty string.
    static QString unavailableReason();
    // The same, and also when umockdev cannot emulate devices for the daemon.
    static QString unavailableReasonWithEmulatedInput();

    DaemonRunner();
    // Kills the adopted daemons that still run, then the bus.
    ~DaemonRunner();

    DaemonRunner(const DaemonRunner&) = delete;
    DaemonRunner& operator=(const DaemonRunner&) = delete;

    // True when the private bus is up; the constructor starts it.
    bool isBusRunning() const { return !address.isEmpty(); }
    QString busAddress() const { return address; }

    // The built orvanta-selvane, which run() starts unless setExecutable says
    // otherwise.
    static QString builtExecutable();
    // run() starts this program file instead, such as a copy of the built one.
    void setExecutable(const QString& program) { executable = program; }
    // The daemon's /usr/share/orvanta is a copy of sourceDir (default: absent).
    void setShareDir(const QString& sourceDir) { shareDir = sourceDir; }
    // With false, the daemon has no /run/orvanta and cannot write its pid file.
    void setRunDirPresent(bool present) { runDirPresent = present; }
    // Variables the daemon gets on top of the test's environment, such as
    // those that let it see emulated devices.
    void setExtraEnvironment(const QHash<QString, QString>& variables)
    {
        extraEnvironment = variables;
    }

    // Runs orvanta-selvane with the arguments in the foreground and waits for
    // it; kills it after the time-out.
    Result run(const QStringList& arguments, int timeoutMs = defaultTimeoutMs);

    // Starts the daemon and waits until its log has a line matching
    // readyLine. Returns the daemon's pid, 0 when it did not get that far.
    pid_t startDaemon(const QStringList& arguments, const QRegularExpression& readyLine);
    // Asks a daemon to quit with SIGTERM and returns its exit status
    // (see waitForExit).
    static int stopDaemon(pid_t daemon);

    // A call of a method of the daemon's D-Bus service, to be sent.
    static QDBusMessage daemonCall(const QString& method, const QVariantList& arguments = {});

    // Daemon processes adopted by the test process and not yet waited for,
    // as they are at this moment.
    QList<pid_t> adoptedDaemons() const;
    // Waits until a daemon is adopted; 0 on time-out.
    pid_t waitForDaemon(int timeoutMs = defaultTimeoutMs) const;

    // A path in the runner's own temporary directory.
    QString path(const QString& name) const { return dir.filePath(name); }
    QString runDir() const { return path(QStringLiteral("run")); }
    QString pidFile() const { return path(QStringLiteral("run/orvanta-selvane.pid")); }
    QString logDir() const { return path(QStringLiteral("log")); }
    QString defaultLogFile() const { return path(QStringLiteral("log/orvanta-selvane.log")); }

    // Starts "sleep infinity" as a child of this process, with the default
    // action for every signal. With blockSignals, every signal but SIGKILL and
    // SIGSTOP stays pending instead, so a test can see which ones were sent.
    // Returns -1 on failure.
    static pid_t startIdleProcess(bool blockSignals = false);
    // True if a SIGTERM is pending on the process (see startIdleProcess).
    static bool hasPendingSigterm(pid_t pid);
    // Makes the calling process adopt its orphaned descendants.
    static bool becomeSubreaper();
    // Waits for a child of this process to end and reaps it. Returns the exit
    // status, 128 + signal when it was killed, -1 on time-out.
    static int waitForExit(pid_t pid, int timeoutMs = defaultTimeoutMs);
    // The process's resident memory in KiB (VmRSS), -1 when unknown.
    static qint64 residentKiB(pid_t pid);
    // The process's peak resident memory in KiB (VmHWM), -1 when unknown.
    static qint64 peakResidentKiB(pid_t pid);
    // The processor time of every thread the process has now, in milliseconds, from their
    // schedstat; -1 when the process is gone.
    static double cpuMs(pid_t pid);
    // The same of one thread of the process (the main thread's id is the process's).
    static double threadCpuMs(pid_t pid, pid_t thread);
    // How often the process's main thread has gone to sleep so far (its voluntary context
    // switches): each wake-up of an idle event loop costs one. -1 when unknown.
    static qint64 mainThreadSleeps(pid_t pid);
    // Re-checks the condition, processing events in between, until it holds
    // or the time is up.
    static bool waitUntil(const std::function<bool()>& condition, int timeoutMs = defaultTimeoutMs);
    // A log line "[time] [Level] [File:function:line] message" with exactly
    // this message, whatever its level and place.
    static QRegularExpression logMessage(const QString& message);
    // A log line with this level, place ("File:function", or
    // "File:function:line" where the line matters) and message.
    static QRegularExpression logLine(const QString& level, const QString& place,
                                      const QString& message);
    // The file's complete lines without their line ends: a line still being written (no line
    // end yet) is left out, so that a test never takes a command's or the log's half line.
    static QStringList readLines(const QString& fileName);
    // Waits until a line of the file matches; true if one did in time.
    static bool waitForLine(const QString& fileName, const QRegularExpression& pattern,
                            int timeoutMs = defaultTimeoutMs);

private:
    QTemporaryDir dir;
    QProcess bus;
    QString address;
    QString executable = builtExecutable();
    QString shareDir;
    QHash<QString, QString> extraEnvironment;
    bool runDirPresent = true;
    int runCount = 0;
};

// Runs the test object on the given application class, or exits with 77
// (skipped) when `unavailableReason` names something this machine lacks, so
// that such a test is never counted as passed without having run.
template <typename Application, typename TestObject>
int runUnlessUnavailable(int argc, char** argv, QString (*unavailableReason)())
{
    Application application(argc, argv);
    const QString reason = unavailableReason();
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));
        return 77;
    }
    TestObject test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

// Like QTEST_GUILESS_MAIN, but skipped (77) when the daemon cannot be run here.
#define SELVANE_DAEMON_TEST_MAIN(TestObject)                                                       \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        return runUnlessUnavailable<QCoreApplication, TestObject>(                                 \
            argc, argv, &DaemonRunner::unavailableReason);                                         \
    }

// Runs the test object with a private dbus-daemon as the session bus of the
// whole process, on the given application class; skipped (77) when no bus can
// be started.
template <typename Application, typename TestObject> int runOnPrivateBus(int argc, char** argv)
{
    Application application(argc, argv);
    DaemonRunner bus;
    if (!bus.isBusRunning()) {
        std::fprintf(stderr, "SKIP: no private dbus-daemon could be started\n");
        return 77;
    }
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus.busAddress().toLocal8Bit());
    TestObject test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
