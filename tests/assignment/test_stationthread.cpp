// A station's thread against real X servers (Xvfb): it reports what happens
// to its server, shows only the picture that is still wanted, gives up a
// connection whose setup the server never answers, and lets its owner go at
// once when the server stopped reading in the middle of an upload. Built with
// ThreadSanitizer too (tools/run-tests.sh), which checks the hand-over
// between the owner and the thread.
#include "OverlayTestBed.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include "overlay/StationThread.h"

#include <QElapsedTimer>
#include <QtTest>

#include <csignal>
#include <memory>

namespace {

constexpr QRgb blue = qRgb(0, 0, 255);
constexpr QRgb yellow = qRgb(255, 255, 0);
const QByteArray windowName = QByteArrayLiteral("Press F Key");

QImage filled(QSize size, QRgb colour)
{
    QImage picture(size, QImage::Format_RGB32);
    picture.fill(colour);
    return picture;
}

OverlayContent content(int generation, OverlayContent::Step step)
{
    OverlayContent shown;
    shown.generation = generation;
    shown.step = step;
    shown.stationId = 4;
    shown.assignmentKey = QStringLiteral("KEY_F5");
    return shown;
}

// The owner's side of a station thread, as a display configuration holds it:
// the reports reach it on this (the test's) thread when it is woken.
class Owner : public QObject
{
public:
    explicit Owner(int displayId) : station(std::make_unique<StationThread>(displayId))
    {
        connect(station.get(), &StationThread::reportsWaiting, this, &Owner::take);
    }
    ~Owner() override { station.reset(); }

    void take()
    {
        for (const StationThread::Report& report : station->takeReports()) {
            reports.append(report);
        }
    }
    int count(StationThread::Report::Kind kind) const
    {
        int found = 0;
        for (const StationThread::Report& report : reports) {
            found += report.kind == kind ? 1 : 0;
        }
        return found;
    }

    std::unique_ptr<StationThread> station;
    QList<StationThread::Report> reports;
};

} // namespace

class StationThreadTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(
            OverlayTestBed::writePicture("configure-keyboard.png", filled(QSize(1024, 768), blue)));
        QVERIFY(OverlayTestBed::writePicture("please-wait-mouse.png",
                                             filled(QSize(1024, 768), yellow)));
        bed = std::make_unique<OverlayTestBed>();
        QVERIFY(bed->isReady());
    }
    void cleanupTestCase() { bed.reset(); }
    void init() { bed->getLog().clear(); }

    void connectingReportsTheScreenSizeOnce()
    {
        XvfbServer server(QStringLiteral("800x600x24"));
        QVERIFY(server.start());
        Owner owner(server.getDisplayNumber());
        // Nothing happens before the first update is asked for.
        QTest::qWait(100);
        QVERIFY(owner.reports.isEmpty());
        const XDisplayProbe probe(server.getDisplayName());
        QVERIFY(probe.windowsNamed(windowName).isEmpty());

        owner.station->requestUpdate();
        QVERIFY(DaemonRunner::waitUntil([&] { return !owner.reports.isEmpty(); }));
        QCOMPARE(owner.reports.first().kind, StationThread::Report::CONNECTED);
        QCOMPARE(owner.reports.first().width, 800u);
        QCOMPARE(owner.reports.first().height, 600u);
        QVERIFY(
            DaemonRunner::waitUntil([&] { return probe.windowsNamed(windowName).size() == 1; }));
        for (int update = 0; update < 5; ++update) {
            owner.station->requestUpdate();
        }
        QTest::qWait(200);
        QCOMPARE(owner.count(StationThread::Report::CONNECTED), 1);
        QCOMPARE(owner.reports.size(), 1);
    }

    void onlyTheWantedPictureIsShown()
    {
        XvfbServer server;
        QVERIFY(server.start());
        const XDisplayProbe probe(server.getDisplayName());
        Owner owner(server.getDisplayNumber());
        owner.station->requestUpdate();
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return owner.count(StationThread::Report::CONNECTED) == 1; }));

        owner.station->setWantedGeneration(1);
        owner.station->show(content(1, OverlayContent::STEP_KEYBOARD));
        QVERIFY(DaemonRunner::waitUntil([&] {
            owner.station->requestUpdate();
            return probe.screenshot(QRect(10, 10, 1, 1)).pixel(0, 0) == blue;
        }));
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return owner.count(StationThread::Report::PICTURE_DONE) == 1; }));
        QCOMPARE(owner.reports.last().generation, 1);

        // A picture that is no longer wanted when the thread takes it is
        // dropped; the wanted one follows.
        owner.station->setWantedGeneration(3);
        owner.station->show(content(2, OverlayContent::STEP_MOUSE_BUSY));
        QTest::qWait(300);
        QCOMPARE(owner.count(StationThread::Report::PICTURE_DONE), 1);
        owner.station->requestUpdate();
        QTest::qWait(100);
        QCOMPARE(probe.screenshot(QRect(10, 10, 1, 1)).pixel(0, 0), blue);
        owner.station->show(content(3, OverlayContent::STEP_MOUSE_BUSY));
        QVERIFY(DaemonRunner::waitUntil([&] {
            owner.station->requestUpdate();
            return probe.screenshot(QRect(10, 10, 1, 1)).pixel(0, 0) == yellow;
        }));
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return owner.count(StationThread::Report::PICTURE_DONE) == 2; }));
        QCOMPARE(owner.reports.last().generation, 3);
    }

    void aServerThatNeverAnswersTheSetupIsGivenUpAtTheDeadline()
    {
        XvfbServer server;
        QVERIFY(server.start());
        QCOMPARE(::kill(server.getPid(), SIGSTOP), 0);
        Owner owner(server.getDisplayNumber());
        QElapsedTimer clock;
        clock.start();
        owner.station->requestUpdate();
        // The owner's periodic steps enforce the deadline.
        QVERIFY(DaemonRunner::waitUntil(
            [&] {
                owner.station->enforceConnectDeadline();
                owner.station->requestUpdate();
                return owner.count(StationThread::Report::CONNECT_FAILED) > 0;
            },
            10000));
        // The failure is the owner's to log.
        QVERIFY2(!bed->getLog().contains(QStringLiteral("Could not get connection to display :%1")
                                             .arg(server.getDisplayNumber())),
                 qPrintable(bed->getLog().messages().join('\n')));
        QVERIFY2(clock.elapsed() >= StationThread::connectTimeoutMs,
                 qPrintable(QString::number(clock.elapsed())));
        QVERIFY2(clock.elapsed() < StationThread::connectTimeoutMs + 1500,
                 qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(owner.count(StationThread::Report::CONNECTED), 0);

        // Going on, the server is connected to once it reads again.
        QCOMPARE(::kill(server.getPid(), SIGCONT), 0);
        QVERIFY(DaemonRunner::waitUntil([&] {
            owner.station->enforceConnectDeadline();
            owner.station->requestUpdate();
            return owner.count(StationThread::Report::CONNECTED) == 1;
        }));
    }

    void aServerStoppedDuringAnUploadLetsTheOwnerGo()
    {
        XvfbServer server(QStringLiteral("3840x2160x24"));
        QVERIFY(server.start());
        auto owner = std::make_unique<Owner>(server.getDisplayNumber());
        owner->station->requestUpdate();
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return owner->count(StationThread::Report::CONNECTED) == 1; }));
        QCOMPARE(::kill(server.getPid(), SIGSTOP), 0);
        // 33 MB of picture: far more than the socket holds, so the thread
        // blocks in the upload; then it is asked to raise the window too.
        owner->station->setWantedGeneration(1);
        owner->station->show(content(1, OverlayContent::STEP_KEYBOARD));
        QTest::qWait(500);
        for (int update = 0; update < 20; ++update) {
            owner->station->requestUpdate();
        }
        QCOMPARE(owner->count(StationThread::Report::PICTURE_DONE), 0);

        QElapsedTimer clock;
        clock.start();
        owner.reset();
        QVERIFY2(clock.elapsed() < 500, qPrintable(QString::number(clock.elapsed())));
        StationThread::joinAbandoned(true);
        QVERIFY(bed->getLog().messages().filter("still busy").isEmpty());

        // Once it reads again, the server finds the connection gone with its
        // window. The daemon's was its last client, so it resets then: a client
        // that comes during the reset is let go, and one that comes after it
        // finds no overlay.
        QCOMPARE(::kill(server.getPid(), SIGCONT), 0);
        QVERIFY(DaemonRunner::waitUntil([&] {
            const XDisplayProbe probe(server.getDisplayName());
            const bool noOverlay = probe.windowsNamed(windowName).isEmpty();
            return probe.isConnected() && noOverlay;
        }));
    }

private:
    std::unique_ptr<OverlayTestBed> bed;
};

SELVANE_OVERLAY_TEST_MAIN(StationThreadTest, true)

#include "test_stationthread.moc"
