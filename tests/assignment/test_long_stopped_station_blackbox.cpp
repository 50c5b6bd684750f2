// One station's X server stopped (SIGSTOP) for 30 s under the built daemon
// while its overlay is up and nothing is due but the periodic raise of its
// window, which goes into a socket that nobody reads. All that time a key
// combination typed on a keyboard of another station runs within 300 ms of
// its last key release and the daemon's D-Bus service answers Introspect
// within 100 ms. At the end the counts change: the running stations redraw
// them while the stopped one is still stopped, and once it runs again it
// shows the same picture as R, a second display of its station number.
#include "OverlayTestBed.h"
#include "StationBlackbox.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QtTest>

#include <csignal>
#include <linux/input.h>
#include <memory>

namespace {

using StationPictures::countsArea;
using StationPictures::differOnlyIn;
using StationPictures::platformOfRound;
using StationPictures::showsAPicture;

constexpr int stationOfA = 3;
constexpr int stationOfB = 6;
constexpr int longStopMs = 30000;
constexpr qint64 combinationLimitMs = 300;
constexpr qint64 introspectLimitMs = 100;
constexpr int pictureTimeoutMs = 5000;

} // namespace

class LongStoppedStationBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(a.start());
        QVERIFY(b.start());
        QVERIFY(r.start());
        blackbox = std::make_unique<StationBlackbox>();
        typing = blackbox->addKeyboard();
        blinking = blackbox->addKeyboard({LED_CAPSL, LED_SCROLLL});
        late = blackbox->addKeyboard();
        QVERIFY(!typing.isEmpty() && !blinking.isEmpty() && !late.isEmpty());
        QVERIFY(blackbox->startPlatform(platformOfRound(1)));
        QVERIFY2(blackbox->startDaemon(SELVANE_BUILT_DATA_DIR), qPrintable(blackbox->logTail()));

        call("deviceAddedToStation", {typing, StationBlackbox::typingStation});
        QVERIFY(blackbox->waitForLog("Adding assigned device " + typing));
        call("unassignedDeviceAdded", {blinking});
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

    void anOverlayWithNothingDueStoppedForThirtySeconds()
    {
        const QImage aBefore = a.screen();
        const QImage bBefore = b.screen();
        const QImage rBefore = r.screen();
        QElapsedTimer stopped;
        stopped.start();
        QVERIFY(a.stop());
        int checks = 0;
        while (stopped.elapsed() < longStopMs) {
            const QString slow =
                blackbox->checkResponsive(typing, combinationLimitMs, introspectLimitMs);
            QVERIFY2(slow.isEmpty(), qPrintable(slow));
            ++checks;
            blackbox->takeLedRecords();
            // Nothing was due: the running stations keep their pictures.
            if (checks % 20 == 0) {
                QVERIFY(b.screen() == bBefore);
                QVERIFY(r.screen() == rBefore);
            }
        }
        qInfo("%d combinations in %lld ms while A was stopped; A's thread: %s", checks,
              stopped.elapsed(), qPrintable(blackbox->stationThreadState(a.number())));
        // The free keyboard went on blinking, a step (two LED records) a second.
        QVERIFY2(blackbox->ledRecords(blinking) >= longStopMs / 1000,
                 qPrintable(QString::number(blackbox->ledRecords(blinking))));
        QCOMPARE(kill(blackbox->getDaemon(), 0), 0);

        // Now a redraw is due, A still stopped.
        QVERIFY(blackbox->startPlatform(platformOfRound(2)));
        call("unassignedDeviceAdded", {late});
        QElapsedTimer redraw;
        redraw.start();
        bool redrawn = false;
        while (!redrawn) {
            const QString slow =
                blackbox->checkResponsive(typing, combinationLimitMs, introspectLimitMs);
            QVERIFY2(slow.isEmpty(), qPrintable(slow));
            redrawn = differOnlyIn(bBefore, b.screen(), countsArea(b.size())) &&
                      differOnlyIn(rBefore, r.screen(), countsArea(r.size()));
            QVERIFY2(redrawn || redraw.elapsed() < pictureTimeoutMs,
                     qPrintable("B and R did not show their new counts; the log ends:\n" +
                                blackbox->logTail()));
        }

        QVERIFY(a.resume());
        const QImage expected = r.screen();
        QVERIFY(expected != aBefore);
        QVERIFY2(DaemonRunner::waitUntil([&] { return a.screen() == expected; }, pictureTimeoutMs),
                 qPrintable("A does not show R's picture; the log ends:\n" + blackbox->logTail()));
        QCOMPARE(a.overlayWindows(), 1);
    }

private:
    void call(const QString& method, const QVariantList& arguments = {})
    {
        const QString error = blackbox->call(method, arguments);
        QVERIFY2(error.isEmpty(), qPrintable(error));
    }

    StoppableStation a;
    StoppableStation b;
    StoppableStation r;
    std::unique_ptr<StationBlackbox> blackbox;
    QString typing;
    QString blinking;
    QString late;
};

// Skipped (77) without a private mount namespace, dbus-daemon, umockdev or Xvfb.
SELVANE_STATION_BLACKBOX_TEST_MAIN(LongStoppedStationBlackboxTest)

#include "test_long_stopped_station_blackbox.moc"
