// Sixteen stations at 1920x1080 under the built daemon, each with its
// overlay up. A keyboard plugged in while the platform's counts have changed
// has all sixteen pictures composed and uploaded anew at once, each on its
// station's thread; a key combination typed at that moment on a keyboard of
// another station runs within 250 ms of its last key release, and so does
// every one typed until all sixteen show their new counts.
#include "OverlayTestBed.h"
#include "StationBlackbox.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QtTest>

#include <array>
#include <memory>

namespace {

using StationPictures::countsArea;
using StationPictures::platformOfRound;
using StationPictures::showsAPicture;

constexpr int stations = 16;
const QSize screenSize(1920, 1080);
constexpr qint64 combinationLimitMs = 250;
// Introspect is not what this case is about; it only has to come back.
constexpr qint64 introspectLimitMs = 1000;
// Sixteen pictures at 1080p composed on two cores, the first time with their
// backgrounds scaled.
constexpr int picturesTimeoutMs = 20000;

} // namespace

class ManyStationsBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        for (auto& station : room) {
            station = std::make_unique<StoppableStation>(
                QStringLiteral("%1x%2x24").arg(screenSize.width()).arg(screenSize.height()));
            QVERIFY(station->start());
        }
        blackbox = std::make_unique<StationBlackbox>();
        typing = blackbox->addKeyboard();
        for (int i = 0; i < 2; ++i) {
            plugged.append(blackbox->addKeyboard());
        }
        QVERIFY(blackbox->startPlatform(platformOfRound(1)));
        QVERIFY2(blackbox->startDaemon(SELVANE_BUILT_DATA_DIR), qPrintable(blackbox->logTail()));
        call("deviceAddedToStation", {typing, StationBlackbox::typingStation});
        QVERIFY(blackbox->waitForLog("Adding assigned device " + typing));
        for (int i = 0; i < stations; ++i) {
            call("configureKeyboard", {room[i]->number(), i});
        }
        QElapsedTimer shown;
        shown.start();
        for (const auto& station : room) {
            QVERIFY2(DaemonRunner::waitUntil([&] { return showsAPicture(station->screen()); },
                                             picturesTimeoutMs),
                     qPrintable(blackbox->logTail()));
        }
        qInfo("all %d pictures were up %lld ms after the last configureKeyboard", stations,
              shown.elapsed());
    }

    void cleanupTestCase() { blackbox.reset(); }

    void combinationsRunWhileSixteenStationsRedraw_data()
    {
        QTest::addColumn<int>("round");
        QTest::newRow("first keyboard plugged") << 2;
        QTest::newRow("second keyboard plugged") << 3;
    }

    void combinationsRunWhileSixteenStationsRedraw()
    {
        QFETCH(int, round);
        std::array<QImage, stations> before;
        for (int i = 0; i < stations; ++i) {
            before[i] = room[i]->screen(countsArea(screenSize));
            QVERIFY(!before[i].isNull());
        }
        QVERIFY(blackbox->startPlatform(platformOfRound(round)));
        call("unassignedDeviceAdded", {plugged.at(round - 2)});

        QElapsedTimer redrawing;
        redrawing.start();
        std::array<bool, stations> redrawn{};
        int left = stations;
        int combinations = 0;
        while (left > 0) {
            const QString slow =
                blackbox->checkResponsive(typing, combinationLimitMs, introspectLimitMs);
            QVERIFY2(slow.isEmpty(), qPrintable(slow));
            ++combinations;
            for (int i = 0; i < stations; ++i) {
                if (!redrawn[i] && room[i]->screen(countsArea(screenSize)) != before[i]) {
                    redrawn[i] = true;
                    --left;
                }
            }
            QVERIFY2(redrawing.elapsed() < picturesTimeoutMs,
                     qPrintable(QStringLiteral("%1 stations did not show their new counts; the "
                                               "log ends:\n%2")
                                    .arg(left)
                                    .arg(blackbox->logTail())));
        }
        qInfo("all %d stations showed their new counts within %lld ms, %d combinations typed",
              stations, redrawing.elapsed(), combinations);
    }

private:
    void call(const QString& method, const QVariantList& arguments = {})
    {
        const QString error = blackbox->call(method, arguments);
        QVERIFY2(error.isEmpty(), qPrintable(error));
    }

    std::array<std::unique_ptr<StoppableStation>, stations> room;
    std::unique_ptr<StationBlackbox> blackbox;
    QString typing;
    QStringList plugged;
};

// Skipped (77) without a private mount namespace, dbus-daemon, umockdev or Xvfb.
SELVANE_STATION_BLACKBOX_TEST_MAIN(ManyStationsBlackboxTest)

#include "test_many_stations_blackbox.moc"
