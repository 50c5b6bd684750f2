// One station's X server stopped (SIGSTOP) under the built daemon: whatever
// that station's thread was doing, or is asked to do, the rest of the room
// goes on. Three Xvfb stations show overlays: A, whose server the cases stop;
// B, another station; and R, a second display of A's station number, which
// shows what A must show once it runs again. In every case, while A is
// stopped, a key combination typed on a keyboard of another station runs
// within 300 ms of its last key release, the daemon's D-Bus service answers
// Introspect within 100 ms and B and R redraw their new counts; once A runs
// again it shows R's picture (or, where its overlay was ended, none).
//
// The cases run in order on one daemon, each a few seconds long:
// a redraw due while stopped, configureKeyboard on a stopped display,
// configurationComplete while stopped, the stopped server killed (and a new
// one started on its display), and SIGTERM to the daemon while A is stopped.
#include "OverlayTestBed.h"
#include "StationBlackbox.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QScopeGuard>
#include <QtTest>

#include <csignal>
#include <linux/input.h>
#include <memory>

namespace {

using StationPictures::countsArea;
using StationPictures::differOnlyIn;
using StationPictures::platformOfRound;
using StationPictures::showsAPicture;

constexpr int stationOfA = 2;
constexpr int stationOfB = 5;
constexpr qint64 combinationLimitMs = 300;
constexpr qint64 introspectLimitMs = 100;
// How long the stations get to show a picture, or a new one.
constexpr int pictureTimeoutMs = 5000;
// How long A stays stopped in a case, at least.
constexpr int stopMs = 2500;

} // namespace

class StoppedStationBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(a.start());
        QVERIFY(b.start());
        QVERIFY(r.start());
        blackbox = std::make_unique<StationBlackbox>();
        typing = blackbox->addKeyboard({LED_NUML});
        QVERIFY(!typing.isEmpty());
        // Free keyboards, plugged one per case; none starts with the single
        // lit LED of a blink step, so that a given-back state tells.
        const QVector<QVector<int>> ledStates = {{LED_NUML, LED_SCROLLL},
                                                 {},
                                                 {LED_NUML, LED_CAPSL},
                                                 {LED_CAPSL, LED_SCROLLL},
                                                 {LED_NUML, LED_CAPSL, LED_SCROLLL},
                                                 {}};
        for (const QVector<int>& leds : ledStates) {
            free.append(blackbox->addKeyboard(leds));
            QVERIFY(!free.last().isEmpty());
        }
        QVERIFY(blackbox->startPlatform(platformOfRound(round)));
        QVERIFY2(blackbox->startDaemon(SELVANE_BUILT_DATA_DIR), qPrintable(blackbox->logTail()));

        call("deviceAddedToStation", {typing, StationBlackbox::typingStation});
        QVERIFY(blackbox->waitForLog("Adding assigned device " + typing));
        plug();
        call("configureKeyboard", {a.number(), stationOfA});
        call("configureKeyboard", {r.number(), stationOfA});
        call("configureKeyboard", {b.number(), stationOfB});
        for (const StoppableStation* station : {&a, &b, &r}) {
            QVERIFY2(DaemonRunner::waitUntil([&] { return showsAPicture(station->screen()); },
                                             pictureTimeoutMs),
                     qPrintable(blackbox->logTail()));
        }
        QVERIFY(DaemonRunner::waitUntil([&] { return a.screen() == r.screen(); }));
    }

    void cleanupTestCase() { blackbox.reset(); }

    void aRedrawDueWhileStopped()
    {
        const QImage aBefore = a.screen();
        const QImage bBefore = b.screen();
        const QImage rBefore = r.screen();
        QVERIFY(stopA());
        // New counts, and a keyboard plugged: every overlay is to be redrawn,
        // A's thread with it, into a server that reads nothing.
        QVERIFY(redrawEverything());
        servedWhileAIsStopped(bBefore, rBefore);
        if (QTest::currentTestFailed()) {
            return;
        }
        QVERIFY(a.resume());
        aShowsWhatRShows(aBefore);
    }

    void configureKeyboardOnAStoppedDisplay()
    {
        call("configurationComplete", {a.number()});
        QVERIFY(DaemonRunner::waitUntil([&] { return a.overlayWindows() == 0; }));
        const QImage aBefore = a.screen();
        const QImage bBefore = b.screen();
        const QImage rBefore = r.screen();
        const QString gaveUp =
            QStringLiteral("Could not get connection to display :%1").arg(a.number());
        const int gaveUpBefore = blackbox->logCount(gaveUp);

        QVERIFY(stopA());
        call("configureKeyboard", {a.number(), stationOfA});
        QVERIFY(redrawEverything());
        servedWhileAIsStopped(bBefore, rBefore);
        if (QTest::currentTestFailed()) {
            return;
        }
        // The setup that the stopped server never answered was given up
        // after its bound, and the station's thread tries again.
        QVERIFY2(blackbox->waitForLog(gaveUp, gaveUpBefore + 1), qPrintable(blackbox->logTail()));
        QVERIFY(a.resume());
        aShowsWhatRShows(aBefore);
    }

    void configurationCompleteWhileStopped()
    {
        const QImage bBefore = b.screen();
        const QImage rBefore = r.screen();
        QVERIFY(stopA());
        QVERIFY(redrawEverything());
        // A's new picture is on its way into the stopped server (B and R
        // show theirs) when its overlay is ended; the combination is typed
        // at that moment.
        QVERIFY(waitUntilOthersRedrawn(bBefore, rBefore));
        call("configurationComplete", {a.number()});
        servedWhileAIsStopped(bBefore, rBefore);
        if (QTest::currentTestFailed()) {
            return;
        }
        QVERIFY2(blackbox->waitForLog(QStringLiteral("Removing display configuration on display "
                                                     ":%1 on station %2.")
                                          .arg(a.number())
                                          .arg(stationOfA)),
                 qPrintable(blackbox->logTail()));
        QVERIFY(a.resume());
        // The daemon closed its end: the server drops the window.
        QVERIFY2(DaemonRunner::waitUntil([&] { return a.overlayWindows() == 0; }, pictureTimeoutMs),
                 qPrintable(QString::number(a.overlayWindows())));
        QVERIFY(!showsAPicture(a.screen()));
        call("logStatus");
        QVERIFY(blackbox->waitForLog("There are 2 display configuration(s) active:"));
    }

    void theStoppedServerKilled()
    {
        call("configureKeyboard", {a.number(), stationOfA});
        QVERIFY2(
            DaemonRunner::waitUntil([&] { return a.screen() == r.screen(); }, pictureTimeoutMs),
            qPrintable(blackbox->logTail()));
        const QImage aBefore = a.screen();
        const QImage bBefore = b.screen();
        const QImage rBefore = r.screen();
        QVERIFY(stopA());
        QVERIFY(redrawEverything());
        // A's thread is held in its picture's upload (B and R show theirs)
        // when the server dies.
        QVERIFY(waitUntilOthersRedrawn(bBefore, rBefore));
        a.kill();
        // A server on the same display at once, before a test server
        // elsewhere takes the number: the overlay is to come back on it.
        QVERIFY(a.start());
        servedWhileAIsStopped(bBefore, rBefore);
        if (QTest::currentTestFailed()) {
            return;
        }
        QVERIFY2(
            blackbox->waitForLog(QStringLiteral("Lost connection to display %1").arg(a.number())),
            qPrintable(blackbox->logTail()));
        QCOMPARE(kill(blackbox->getDaemon(), 0), 0);
        aShowsWhatRShows(aBefore);
    }

    void sigtermWhileStopped()
    {
        const QImage bBefore = b.screen();
        const QImage rBefore = r.screen();
        QVERIFY(stopA());
        QVERIFY(redrawEverything());
        servedWhileAIsStopped(bBefore, rBefore);
        if (QTest::currentTestFailed()) {
            return;
        }
        // Every plugged keyboard blinked: its LEDs were not as they started.
        blackbox->takeLedRecords();
        for (const QString& keyboard : plugged) {
            QVERIFY2(blackbox->ledRecords(keyboard) > 0, qPrintable(keyboard));
        }

        QElapsedTimer terminating;
        terminating.start();
        const int status = blackbox->terminateDaemon(1000);
        const qint64 exitMs = terminating.elapsed();
        qInfo("the daemon exited %lld ms after SIGTERM", exitMs);
        QVERIFY2(status == 0, qPrintable(QStringLiteral("status %1 after %2 ms; the log ends:\n%3")
                                             .arg(status)
                                             .arg(exitMs)
                                             .arg(blackbox->logTail())));
        QVERIFY(!QFile::exists(blackbox->getRunner().pidFile()));
        const QStringList removals =
            blackbox->log().filter(QRegularExpression("Removing display configuration on display"));
        for (const QString& expected :
             {QStringLiteral("Removing display configuration on display :%1 on station %2.")
                  .arg(a.number())
                  .arg(stationOfA),
              QStringLiteral("Removing display configuration on display :%1 on station %2.")
                  .arg(r.number())
                  .arg(stationOfA),
              QStringLiteral("Removing display configuration on display :%1 on station %2.")
                  .arg(b.number())
                  .arg(stationOfB)}) {
            QVERIFY2(blackbox->logCount(expected) > 0,
                     qPrintable(expected + " is missing from:\n" + removals.join('\n')));
        }
        blackbox->takeLedRecords();
        for (const QString& keyboard : plugged) {
            QMap<int, int> expected;
            for (int led = LED_NUML; led <= LED_SCROLLL; ++led) {
                expected[led] = blackbox->initialLeds(keyboard).contains(led) ? 1 : 0;
            }
            QCOMPARE(blackbox->lastLeds(keyboard), expected);
        }

        QVERIFY(a.resume());
        for (const StoppableStation* station : {&a, &b, &r}) {
            QVERIFY(DaemonRunner::waitUntil([&] { return station->overlayWindows() == 0; }));
        }
    }

private:
    bool stopA()
    {
        stoppedFor.start();
        return a.stop();
    }

    // New counts, and a keyboard plugged: every overlay is to be redrawn.
    bool redrawEverything()
    {
        if (!blackbox->startPlatform(platformOfRound(++round))) {
            return false;
        }
        plug();
        return !QTest::currentTestFailed();
    }

    // B and R show their new pictures; false, with the log, when they do not in time.
    bool waitUntilOthersRedrawn(const QImage& bBefore, const QImage& rBefore)
    {
        if (DaemonRunner::waitUntil([&] { return othersRedrawn(bBefore, rBefore); },
                                    pictureTimeoutMs)) {
            return true;
        }
        qWarning("%s", qPrintable(blackbox->logTail()));
        return false;
    }

    // Plugs the next free keyboard: the counts of every overlay are to be
    // drawn anew.
    void plug()
    {
        QVERIFY(plugged.size() < free.size());
        const QString keyboard = free.at(plugged.size());
        call("unassignedDeviceAdded", {keyboard});
        plugged.append(keyboard);
    }

    void call(const QString& method, const QVariantList& arguments = {})
    {
        const QString error = blackbox->call(method, arguments);
        QVERIFY2(error.isEmpty(), qPrintable(error));
    }

    // While A is stopped: the combination and Introspect, at once and then
    // over and over until A has been stopped for stopMs, and B and R show
    // their new counts.
    void servedWhileAIsStopped(const QImage& bBefore, const QImage& rBefore)
    {
        const auto reportThread = qScopeGuard([&] {
            qInfo("after %lld ms stopped, A's thread: %s", stoppedFor.elapsed(),
                  qPrintable(blackbox->stationThreadState(a.number())));
        });
        bool redrawn = false;
        while (!redrawn || stoppedFor.elapsed() < stopMs) {
            const QString slow =
                blackbox->checkResponsive(typing, combinationLimitMs, introspectLimitMs);
            QVERIFY2(slow.isEmpty(), qPrintable(slow));
            blackbox->takeLedRecords();
            redrawn = othersRedrawn(bBefore, rBefore);
            QVERIFY2(redrawn || stoppedFor.elapsed() < pictureTimeoutMs,
                     qPrintable("B and R did not show their new counts; the log ends:\n" +
                                blackbox->logTail()));
        }
    }

    // B and R show new counts and nothing else new.
    bool othersRedrawn(const QImage& bBefore, const QImage& rBefore) const
    {
        return differOnlyIn(bBefore, b.screen(), countsArea(b.size())) &&
               differOnlyIn(rBefore, r.screen(), countsArea(r.size()));
    }

    // A, running again, comes to show R's picture, which is not the one A
    // showed before it was stopped.
    void aShowsWhatRShows(const QImage& aBefore)
    {
        const QImage expected = r.screen();
        QVERIFY(showsAPicture(expected));
        QVERIFY(expected != aBefore);
        QElapsedTimer resumed;
        resumed.start();
        QVERIFY2(DaemonRunner::waitUntil([&] { return a.screen() == expected; }, pictureTimeoutMs),
                 qPrintable("A does not show R's picture; the log ends:\n" + blackbox->logTail()));
        qInfo("A showed its picture %lld ms after it ran again", resumed.elapsed());
        QCOMPARE(a.overlayWindows(), 1);
    }

    StoppableStation a;
    StoppableStation b;
    StoppableStation r;
    std::unique_ptr<StationBlackbox> blackbox;
    QString typing;
    QStringList free;
    QStringList plugged;
    int round = 1;
    QElapsedTimer stoppedFor;
};

// Skipped (77) without a private mount namespace, dbus-daemon, umockdev or Xvfb.
SELVANE_STATION_BLACKBOX_TEST_MAIN(StoppedStationBlackboxTest)

#include "test_stopped_station_blackbox.moc"
