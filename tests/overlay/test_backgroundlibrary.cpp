// The backgrounds shared by the station threads, and the slots that bound
// how many compositions run at once. Runs in a private mount namespace,
// where it writes its own pictures into the daemon's image directory.
#include "LogCapture.h"

#include "overlay/BackgroundLibrary.h"
#include "overlay/CompositionSlots.h"

#include "Paths.h"

#include <QDir>
#include <QGuiApplication>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <sched.h>
#include <thread>
#include <vector>

namespace {

const QSize screen(1920, 1080);

bool writePicture(const QString& fileName, QSize size, QColor colour)
{
    QImage picture(size, QImage::Format_RGB32);
    picture.fill(colour);
    QDir().mkpath(QString::fromLatin1(Orvanta::Paths::imageDir));
    return picture.save(QString::fromLatin1(Orvanta::Paths::imageDir) + "/" + fileName);
}

// `count` threads obtaining the same background at once.
std::vector<std::shared_ptr<const ScaledBackground>>
obtainTogether(const QString& fileName, const QString& badgeFile, int count)
{
    std::vector<std::shared_ptr<const ScaledBackground>> found(static_cast<size_t>(count));
    std::atomic<int> ready{0};
    std::vector<std::thread> stations;
    for (int i = 0; i < count; ++i) {
        stations.emplace_back([&, i] {
            ++ready;
            while (ready.load() < count) {
                std::this_thread::yield();
            }
            found[static_cast<size_t>(i)] =
                BackgroundLibrary::shared().obtain(fileName, badgeFile, screen);
        });
    }
    for (std::thread& station : stations) {
        station.join();
    }
    return found;
}

} // namespace

class BackgroundLibraryTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(writePicture("blue.png", QSize(1024, 768), Qt::blue));
        QVERIFY(writePicture("badge.png", QSize(1024, 768), Qt::transparent));
    }

    // Made once by the first station, the others of that size wait for it:
    // all of them get the very same picture.
    void stationsOfOneSizeShareOneBackground()
    {
        const auto found = obtainTogether("blue.png", QString(), 8);
        QVERIFY(found.front());
        for (const auto& background : found) {
            QCOMPARE(background.get(), found.front().get());
        }
        QCOMPARE(BackgroundLibrary::shared().countInUse(), 1);
        const auto other =
            BackgroundLibrary::shared().obtain("blue.png", QString(), QSize(800, 600));
        QVERIFY(other && other.get() != found.front().get());
        QCOMPARE(BackgroundLibrary::shared().countInUse(), 2);
    }

    void aBackgroundNobodyHoldsIsFreed()
    {
        auto background = BackgroundLibrary::shared().obtain("blue.png", QString(), screen);
        QVERIFY(background);
        QCOMPARE(BackgroundLibrary::shared().countInUse(), 1);
        background.reset();
        QCOMPARE(BackgroundLibrary::shared().countInUse(), 0);
    }

    // A file that cannot be read is never shared: each station looks for it
    // and logs its own line.
    void aMissingFileIsLoggedByEveryStation()
    {
        LogCapture capture;
        const auto found = obtainTogether("absent.png", QString(), 4);
        for (const auto& background : found) {
            QVERIFY(!background);
        }
        QCOMPARE(capture.count("Could not load image 'absent.png'"), 4);
    }

    // Without its badge a picture is shown, logged, and looked for again next time.
    void aMissingBadgeIsLoggedEachTimeAndNotShared()
    {
        LogCapture capture;
        const auto first = BackgroundLibrary::shared().obtain("blue.png", "NOBADGE.png", screen);
        const auto second = BackgroundLibrary::shared().obtain("blue.png", "NOBADGE.png", screen);
        QVERIFY(first && second);
        QVERIFY(first.get() != second.get());
        const QString line = QStringLiteral("Could not open overlay file '%1/NOBADGE.png'")
                                 .arg(QString::fromLatin1(Orvanta::Paths::imageDir));
        QCOMPARE(capture.count(line), 2);
        const auto badged = obtainTogether("blue.png", "badge.png", 3);
        QVERIFY(badged.front());
        QCOMPARE(badged.back().get(), badged.front().get());
    }

    // A picture replaced on disk is read anew; the one still shown stays.
    void aReplacedFileIsReadAgain()
    {
        QVERIFY(writePicture("changing.png", QSize(1024, 768), Qt::red));
        const auto red = BackgroundLibrary::shared().obtain("changing.png", QString(), screen);
        QVERIFY(red);
        QVERIFY(writePicture("changing.png", QSize(512, 384), Qt::green));
        const auto green = BackgroundLibrary::shared().obtain("changing.png", QString(), screen);
        QVERIFY(green);
        QCOMPARE(QColor(green->image.pixel(960, 540)), QColor(Qt::green));
        QCOMPARE(QColor(red->image.pixel(960, 540)), QColor(Qt::red));
    }

    void theDaemonHasOneSlotPerUsableCore()
    {
        cpu_set_t cores;
        CPU_ZERO(&cores);
        QCOMPARE(sched_getaffinity(0, sizeof(cores), &cores), 0);
        QCOMPARE(CompositionSlots::usableCores(), CPU_COUNT(&cores));
        QCOMPARE(CompositionSlots::shared().getCount(), CPU_COUNT(&cores));
        QCOMPARE(CompositionSlots(0).getCount(), 1);
    }

    // However many stations compose, no more than the slots run at once.
    void compositionsTakeTurns()
    {
        CompositionSlots twoSlots(2);
        std::atomic<int> running{0};
        std::atomic<int> most{0};
        std::vector<std::thread> stations;
        for (int i = 0; i < 6; ++i) {
            stations.emplace_back([&] {
                const CompositionSlots::Slot slot(twoSlots);
                const int now = ++running;
                int seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                --running;
            });
        }
        for (std::thread& station : stations) {
            station.join();
        }
        QVERIFY(most.load() >= 1);
        QVERIFY2(most.load() <= 2, qPrintable(QString::number(most.load())));
    }
};

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    BackgroundLibraryTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_backgroundlibrary.moc"
