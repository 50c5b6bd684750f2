// The built daemon's 100 ms tick runs only while it has periodic work: an
// overlay up (on an Xvfb station), an unassigned keyboard whose LEDs blink, a
// claimed keyboard to drop. Otherwise its main thread sleeps until a key, a
// D-Bus call or a signal wakes it.
//
// How the tick is seen from outside: the main thread's voluntary context
// switches (/proc/PID/task/PID/status). An idle event loop goes to sleep once
// per wake-up, so a 100 ms tick costs about 20 of them in a 2 s window, and a
// daemon with nothing to do close to none. Each window starts once the daemon
// has answered a status request (StationBlackbox::passTick()), so the call's
// own wake-ups lie before it.
//
// One daemon for the whole run: an emulated keyboard assigned to station 40
// (its combinations run without the tick), a free keyboard that is plugged,
// unplugged and finally claimed, and one Xvfb station.
#include "OverlayTestBed.h"
#include "StationBlackbox.h"

#include <QGuiApplication>
#include <QtTest>

#include <linux/input.h>
#include <memory>

namespace {

constexpr int station = 2;
// The station's assignment key: F1 for station 0.
constexpr int stationKey = KEY_F3;
constexpr int windowMs = 2000;
// A 100 ms tick sleeps about 20 times in a window. An idle daemon may still
// finish the status request's update in it; a ticking one may lose a few
// ticks to a busy machine.
constexpr qint64 idleSleepsAtMost = 4;
constexpr qint64 tickingSleepsAtLeast = 10;
constexpr int pictureTimeoutMs = 5000;

} // namespace

class IdleTickBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(screen.start(), qPrintable(screen.startError()));
        blackbox = std::make_unique<StationBlackbox>();
        typing = blackbox->addKeyboard({LED_NUML});
        QVERIFY(!typing.isEmpty());
        freeKeyboard = blackbox->addKeyboard({LED_NUML, LED_SCROLLL});
        QVERIFY(!freeKeyboard.isEmpty());
        QVERIFY(blackbox->startPlatform(StationPictures::platformOfRound(1)));
        QVERIFY2(blackbox->startDaemon(SELVANE_BUILT_DATA_DIR), qPrintable(blackbox->logTail()));
        call("deviceAddedToStation", {typing, StationBlackbox::typingStation});
        QVERIFY(blackbox->waitForLog("Adding assigned device " + typing));
    }

    void cleanupTestCase() { blackbox.reset(); }

    void anIdleDaemonSleeps()
    {
        const qint64 sleeps = sleepsOverAWindow();
        QVERIFY2(sleeps >= 0 && sleeps <= idleSleepsAtMost, qPrintable(QString::number(sleeps)));
        // The assigned keyboard's combinations need no tick.
        QVERIFY2(blackbox->combinationLatencyMs(typing) >= 0, qPrintable(blackbox->logTail()));
    }

    void anOverlayRunsTheTickUntilItsConfigurationIsComplete()
    {
        call("configureKeyboard", {screen.number(), station});
        QVERIFY2(
            DaemonRunner::waitUntil([&] { return StationPictures::showsAPicture(screen.screen()); },
                                    pictureTimeoutMs),
            qPrintable(blackbox->logTail()));
        const qint64 ticking = sleepsOverAWindow();
        QVERIFY2(ticking >= tickingSleepsAtLeast, qPrintable(QString::number(ticking)));

        call("configurationComplete", {screen.number()});
        QVERIFY(blackbox->waitForLog(
            QStringLiteral("Removing display configuration on display :%1 on station %2.")
                .arg(screen.number())
                .arg(station)));
        QVERIFY(DaemonRunner::waitUntil([&] { return screen.overlayWindows() == 0; }));
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return blackbox->stationThreadState(screen.number()) == "none"; }));
        const qint64 idle = sleepsOverAWindow();
        QVERIFY2(idle >= 0 && idle <= idleSleepsAtMost, qPrintable(QString::number(idle)));
    }

    void aBlinkingKeyboardRunsTheTickUntilItIsUnplugged()
    {
        const int recordsBefore = blackbox->ledRecords(freeKeyboard);
        call("unassignedDeviceAdded", {freeKeyboard});
        // A step a second: two records, one LED off and the next on.
        QVERIFY2(DaemonRunner::waitUntil([&] {
                     blackbox->takeLedRecords();
                     return blackbox->ledRecords(freeKeyboard) >= recordsBefore + 2;
                 }),
                 qPrintable(blackbox->logTail()));
        const qint64 ticking = sleepsOverAWindow();
        QVERIFY2(ticking >= tickingSleepsAtLeast, qPrintable(QString::number(ticking)));

        call("unassignedDeviceRemoved", {freeKeyboard});
        QVERIFY(blackbox->waitForLog("Closed device " + freeKeyboard));
        const qint64 idle = sleepsOverAWindow();
        QVERIFY2(idle >= 0 && idle <= idleSleepsAtMost, qPrintable(QString::number(idle)));
        // The LEDs it had before blinking are back.
        blackbox->takeLedRecords();
        const QMap<int, int> leds = blackbox->lastLeds(freeKeyboard);
        QCOMPARE(leds.value(LED_NUML), 1);
        QCOMPARE(leds.value(LED_CAPSL), 0);
        QCOMPARE(leds.value(LED_SCROLLL), 1);
    }

    void aClaimedKeyboardLeavesNoTickOnceTheConfigurationIsComplete()
    {
        call("unassignedDeviceAdded", {freeKeyboard});
        call("configureKeyboard", {screen.number(), station});
        QVERIFY2(
            DaemonRunner::waitUntil([&] { return StationPictures::showsAPicture(screen.screen()); },
                                    pictureTimeoutMs),
            qPrintable(blackbox->logTail()));
        const int closedBefore = blackbox->logCount("Closed device " + freeKeyboard);
        QVERIFY(blackbox->getDevices().pressKey(freeKeyboard, stationKey));
        QVERIFY(blackbox->getDevices().releaseKey(freeKeyboard, stationKey));
        // The claimed keyboard is dropped from the unassigned ones.
        QVERIFY2(blackbox->waitForLog("Closed device " + freeKeyboard, closedBefore + 1),
                 qPrintable(blackbox->logTail()));

        call("configurationComplete", {screen.number()});
        QVERIFY(DaemonRunner::waitUntil([&] { return screen.overlayWindows() == 0; }));
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return blackbox->stationThreadState(screen.number()) == "none"; }));
        const qint64 idle = sleepsOverAWindow();
        QVERIFY2(idle >= 0 && idle <= idleSleepsAtMost, qPrintable(QString::number(idle)));
    }

private:
    void call(const char* method, const QVariantList& arguments)
    {
        const QString error = blackbox->call(QString::fromLatin1(method), arguments);
        QVERIFY2(error.isEmpty(), qPrintable(error));
    }

    // The main thread's sleeps in a window of windowMs that starts once the
    // daemon has answered a status request; -1 when they cannot be read.
    qint64 sleepsOverAWindow()
    {
        if (!blackbox->passTick()) {
            return -1;
        }
        const qint64 before = DaemonRunner::mainThreadSleeps(blackbox->getDaemon());
        QTest::qWait(windowMs);
        const qint64 after = DaemonRunner::mainThreadSleeps(blackbox->getDaemon());
        qInfo("main thread: %lld sleeps in %d ms", after - before, windowMs);
        return before < 0 || after < 0 ? -1 : after - before;
    }

    StoppableStation screen;
    std::unique_ptr<StationBlackbox> blackbox;
    QString typing;
    QString freeKeyboard;
};

// Skipped (77) without a private mount namespace, dbus-daemon, umockdev or Xvfb.
SELVANE_STATION_BLACKBOX_TEST_MAIN(IdleTickBlackboxTest)

#include "test_idle_tick_blackbox.moc"
