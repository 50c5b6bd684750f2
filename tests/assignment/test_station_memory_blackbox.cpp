// The built daemon's memory with sixteen stations: every keyboard picture up,
// then each redrawn once after a keyboard arrived while the platform's counts
// changed. Once every screen shows its new picture (compared with the picture
// composed here for it), the daemon's resident memory (VmRSS) and its peak
// (VmHWM) are printed and held to their bounds, at 1920x1080 and at 3840x2160.
//
// The pictures are composed here from the built data directory, which this
// program sees as the daemon's (it runs in a private mount namespace that
// shows it there).
#include "ComposedPicture.h"
#include "OverlayTestBed.h"
#include "StationBlackbox.h"

#include "assignment/DisplayConfiguration.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QtTest>

#include <array>
#include <memory>

namespace {

using ComposedPicture::compareScreens;
using ComposedPicture::composedPicture;
using ComposedPicture::showsPicture;
using ComposedPicture::visibleOnScreen;
using ComposedPicture::visiblePart;
using StationPictures::pictureOfRound;
using StationPictures::platformOfRound;

constexpr int stations = 16;
// Sixteen pictures composed and uploaded on two cores, the first time with
// their backgrounds scaled.
constexpr int picturesTimeoutMs = 180000;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// A sanitizer's allocator keeps its own records and quarantine: the figures
// say nothing about the daemon's memory there.
constexpr bool memoryIsJudged = false;
#else
constexpr bool memoryIsJudged = true;
#endif

} // namespace

class StationMemoryBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        const QString reason = OverlayTestBed::unavailableReason(true);
        if (!reason.isEmpty()) {
            QSKIP(qPrintable(reason));
        }
        // The daemon's font, which the pictures composed here need as well.
        DisplayConfiguration::initTranslations();
        QVERIFY2(ComposedPicture::installedLanguage(QStringLiteral("en")),
                 "no English in the data directory's translations");
    }

    void sixteenStationsRedrawWithinTheirMemory_data()
    {
        QTest::addColumn<QSize>("screenSize");
        QTest::addColumn<qint64>("residentLimitKiB");
        QTest::addColumn<qint64>("peakLimitKiB");
        QTest::newRow("1920x1080") << QSize(1920, 1080) << qint64(64 * 1024) << qint64(160 * 1024);
        QTest::newRow("3840x2160") << QSize(3840, 2160) << qint64(128 * 1024) << qint64(400 * 1024);
    }

    void sixteenStationsRedrawWithinTheirMemory()
    {
        QFETCH(QSize, screenSize);
        QFETCH(qint64, residentLimitKiB);
        QFETCH(qint64, peakLimitKiB);
        std::array<std::unique_ptr<StoppableStation>, stations> room;
        for (auto& station : room) {
            station = std::make_unique<StoppableStation>(
                QStringLiteral("%1x%2x24").arg(screenSize.width()).arg(screenSize.height()));
            QVERIFY2(station->start(), qPrintable(station->startError()));
        }
        StationBlackbox blackbox;
        const QString plugged = blackbox.addKeyboard();
        QVERIFY(!plugged.isEmpty());
        QVERIFY(blackbox.startPlatform(platformOfRound(1)));
        QVERIFY2(blackbox.startDaemon(SELVANE_BUILT_DATA_DIR), qPrintable(blackbox.logTail()));
        for (int i = 0; i < stations; ++i) {
            call(blackbox, "configureKeyboard", {room[i]->number(), i});
        }
        QElapsedTimer shown;
        shown.start();
        checkPictures(blackbox, room, 1, screenSize);
        if (QTest::currentTestFailed()) {
            return;
        }
        qInfo("all %d pictures up after %lld ms", stations, shown.elapsed());

        QVERIFY(blackbox.startPlatform(platformOfRound(2)));
        call(blackbox, "unassignedDeviceAdded", {plugged});
        shown.restart();
        checkPictures(blackbox, room, 2, screenSize);
        if (QTest::currentTestFailed()) {
            return;
        }
        qInfo("all %d redrawn after %lld ms", stations, shown.elapsed());

        const qint64 resident = DaemonRunner::residentKiB(blackbox.getDaemon());
        const qint64 peak = DaemonRunner::peakResidentKiB(blackbox.getDaemon());
        qInfo("daemon with %d stations at %dx%d: VmRSS %lld KiB (%.1f MB), VmHWM %lld KiB "
              "(%.1f MB); bounds %lld and %lld KiB",
              stations, screenSize.width(), screenSize.height(), resident, resident / 1024.0, peak,
              peak / 1024.0, residentLimitKiB, peakLimitKiB);
        QVERIFY(resident > 0 && peak > 0);
        if (!memoryIsJudged) {
            qInfo("a sanitizer build: its memory figures are printed, not held to the bounds");
            return;
        }
        QStringList over;
        if (resident > residentLimitKiB) {
            over << QStringLiteral("VmRSS %1 KiB > %2 KiB").arg(resident).arg(residentLimitKiB);
        }
        if (peak > peakLimitKiB) {
            over << QStringLiteral("VmHWM %1 KiB > %2 KiB").arg(peak).arg(peakLimitKiB);
        }
        QVERIFY2(over.isEmpty(), qPrintable(over.join(QStringLiteral("; "))));
    }

private:
    static void call(StationBlackbox& blackbox, const QString& method,
                     const QVariantList& arguments)
    {
        const QString error = blackbox.call(method, arguments);
        QVERIFY2(error.isEmpty(), qPrintable(error));
    }

    // Waits until every station shows its picture of the round, one station
    // after the other, each picture composed here only while it is looked for.
    static void checkPictures(StationBlackbox& blackbox,
                              const std::array<std::unique_ptr<StoppableStation>, stations>& room,
                              int round, QSize screenSize)
    {
        const QDeadlineTimer deadline(picturesTimeoutMs);
        for (int i = 0; i < stations; ++i) {
            const QImage expected =
                composedPicture(pictureOfRound(round, i), screenSize).copy(visiblePart(screenSize));
            QVERIFY(!expected.isNull());
            QImage shot;
            const bool shows = DaemonRunner::waitUntil(
                [&] {
                    shot = room[i]->screen(visibleOnScreen(screenSize));
                    return showsPicture(shot, expected);
                },
                static_cast<int>(qMax<qint64>(deadline.remainingTime(), 0)));
            const ComposedPicture::ScreenDifference difference = compareScreens(shot, expected);
            QVERIFY2(shows, qPrintable(QStringLiteral("station %1 on :%2 in round %3 differs from "
                                                      "its picture in %4 pixels, by up to %5; "
                                                      "the log ends:\n%6")
                                           .arg(i)
                                           .arg(room[i]->number())
                                           .arg(round)
                                           .arg(difference.pixels)
                                           .arg(difference.maxLevels)
                                           .arg(blackbox.logTail())));
        }
    }
};

// Skipped (77) without a private mount namespace, dbus-daemon, umockdev or Xvfb.
SELVANE_STATION_BLACKBOX_TEST_MAIN(StationMemoryBlackboxTest)

#include "test_station_memory_blackbox.moc"
