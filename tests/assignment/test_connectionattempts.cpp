// A display that cannot be reached: when its attempts are due and what is
// logged about them, with the time given by the test; its socket is tried
// without waiting; and a station whose thread cannot be started logs that and
// goes on without one.
#include "LogCapture.h"

#include "overlay/ConnectionAttempts.h"
#include "overlay/DisplaySocket.h"
#include "overlay/StationThread.h"

#include <QElapsedTimer>
#include <QtTest>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
using Clock = ConnectionAttempts::Clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// A display number on which nothing listens: no server has a socket this high.
constexpr int displayWithoutServer = 29871;

const QString firstFailure = QStringLiteral("Could not get connection to display :7");

QString stillNone(int attempts)
{
    return QStringLiteral("Still no connection to display :7 after %1 attempts").arg(attempts);
}
} // namespace

class ConnectionAttemptsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { log.clear(); }

    void theFirstFailureIsLoggedThenOneLineAMinute()
    {
        ConnectionAttempts attempts(7);
        const Clock::time_point start{seconds(1000)};
        QVERIFY(attempts.isDue(start));
        // Ten attempts a second for three minutes.
        for (int tenth = 0; tenth < 1800; ++tenth) {
            attempts.failed(start + milliseconds(100) * tenth, milliseconds(100));
        }
        QCOMPARE(log.messages(), (QStringList{firstFailure, stillNone(601), stillNone(1201)}));
        for (const LogCapture::Entry& entry : log.entries()) {
            QCOMPARE(entry.level, Orvanta::Logger::LEVEL_WARNING);
        }
        QCOMPARE(attempts.getFailures(), 1800);
    }

    void aFailedAttemptIsRetriedAfterItsDelay()
    {
        ConnectionAttempts attempts(7);
        const Clock::time_point start{seconds(50)};
        attempts.failed(start, seconds(2));
        QVERIFY(!attempts.isDue(start));
        QVERIFY(!attempts.isDue(start + milliseconds(1999)));
        QVERIFY(attempts.isDue(start + seconds(2)));
    }

    void aConnectionEndsTheOutage()
    {
        ConnectionAttempts attempts(7);
        const Clock::time_point start{seconds(50)};
        attempts.failed(start, seconds(2));
        attempts.failed(start + seconds(61), seconds(2));
        attempts.connected();
        QVERIFY(attempts.isDue(start + seconds(61)));
        QCOMPARE(attempts.getFailures(), 0);
        // The next outage is told from its first failure again.
        attempts.failed(start + seconds(100), seconds(2));
        attempts.failed(start + seconds(159), seconds(2));
        QCOMPARE(log.messages(), (QStringList{firstFailure, stillNone(2), firstFailure}));
    }

    void aSocketWithoutServerFailsAtOnce()
    {
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < 100; ++i) {
            QCOMPARE(DisplaySocket::connect(displayWithoutServer), -1);
        }
        // Generous: a hundred tries that never wait take a few milliseconds.
        QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
    }

    void aThreadThatCannotStartIsLoggedNotFatal()
    {
        // In a child under a task limit that its user is over already: there
        // no thread can be created. Root ignores the limit, so the child
        // becomes an unprivileged user first.
        const pid_t child = fork();
        QVERIFY(child >= 0);
        if (child == 0) {
            _exit(startWithoutThreads());
        }
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QVERIFY(WIFEXITED(status));
        if (WEXITSTATUS(status) == childCannotDropRoot) {
            QSKIP("cannot become an unprivileged user to be held by a task limit");
        }
        QCOMPARE(WEXITSTATUS(status), 0);
    }

private:
    static constexpr int childCannotDropRoot = 77;

    // The child's side: 0 when the station had no thread and said so once.
    int startWithoutThreads()
    {
        constexpr uid_t nobody = 65534;
        if (geteuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0)) {
            return childCannotDropRoot;
        }
        const rlimit none{1, 1};
        if (setrlimit(RLIMIT_NPROC, &none) != 0) {
            return 2;
        }
        log.clear();
        {
            StationThread station(displayWithoutServer);
            if (station.isRunning()) {
                return 3;
            }
        }
        const QStringList expected{
            QStringLiteral("Could not start a thread for display :%1").arg(displayWithoutServer)};
        if (log.messages() != expected ||
            log.entries().first().level != Orvanta::Logger::LEVEL_ERROR) {
            return 4;
        }
        return 0;
    }

    LogCapture log;
};

QTEST_GUILESS_MAIN(ConnectionAttemptsTest)
#include "test_connectionattempts.moc"
