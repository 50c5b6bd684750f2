// Hostile X servers under the built daemon: a server of the test's own
// (FakeXServer) listens on a display that the platform configures and answers
// the setup with a pixmap format of scanline pad 0, a 32767x16385 screen at
// pad 64, a reply cut short, garbage, a header alone, or counts that point
// past the reply, or that stops reading after a valid setup.
// Each is refused with one clear line per connection, and meanwhile the
// daemon stays up, its peak resident memory stays under 256 MB, a key
// combination typed at another station runs within 300 ms and a real Xvfb
// station configured alongside gets its overlay. A screen refused for its
// size is drawn once a RandR change makes it fit, hidden again by a change
// past the bound, and drawn again after it. A server whose socket belongs to
// another account is used, with a warning that names it.
#include "FakeXServer.h"
#include "OverlayTestBed.h"
#include "StationBlackbox.h"
#include "XSetupReply.h"

#include <QGuiApplication>
#include <QtTest>

#include <csignal>
#include <memory>
#include <unistd.h>

namespace {

using StationPictures::platformOfRound;
using StationPictures::showsAPicture;

constexpr int stationOfV = 4;
constexpr int hostileStation = 7;
constexpr qint64 combinationLimitMs = 300;
constexpr qint64 introspectLimitMs = 1000;
constexpr qint64 peakLimitKiB = 256 * 1024;
constexpr int pictureTimeoutMs = 5000;
// Main-loop ticks waited for to see that a refusal is not logged again.
constexpr int ticksWatched = 10;
// The account a foreign server's socket is made by.
constexpr uid_t foreignUid = 65534;

XSetupReply withFormats(const QVector<XSetupReply::Format>& formats)
{
    XSetupReply reply;
    reply.formats = formats;
    return reply;
}

QString screenRefusal(int display, int width, int height)
{
    return QStringLiteral("Refusing display :%1: its screen of %2x%3 is larger than 8192x8192")
        .arg(display)
        .arg(width)
        .arg(height);
}

} // namespace

class HostileXServerBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(v.start());
        blackbox = std::make_unique<StationBlackbox>();
        typing = blackbox->addKeyboard();
        QVERIFY(!typing.isEmpty());
        QVERIFY(blackbox->startPlatform(platformOfRound(1)));
        QVERIFY2(blackbox->startDaemon(SELVANE_BUILT_DATA_DIR), qPrintable(blackbox->logTail()));
        call("deviceAddedToStation", {typing, StationBlackbox::typingStation});
        QVERIFY(blackbox->waitForLog("Adding assigned device " + typing));
        call("configureKeyboard", {v.number(), stationOfV});
        QVERIFY2(
            DaemonRunner::waitUntil([&] { return showsAPicture(v.screen()); }, pictureTimeoutMs),
            qPrintable(blackbox->logTail()));
    }

    void cleanupTestCase() { blackbox.reset(); }

    void aRefusedServer_data()
    {
        QTest::addColumn<QByteArray>("setup");
        QTest::addColumn<FakeXServer::AfterSetup>("afterSetup");
        // The expected line, with %1 for the display number.
        QTest::addColumn<QString>("refusal");
        // Whether the line comes once for the one connection: a server that
        // ends the connection is tried again on every tick, as one that
        // cannot be reached.
        QTest::addColumn<bool>("once");

        constexpr auto serve = FakeXServer::AfterSetup::SERVE;
        const QString noFormat = QStringLiteral("Refusing display :%1: no usable pixmap format");
        const QString malformed = QStringLiteral("Refusing display :%1: its X setup is malformed");
        QTest::newRow("scanline pad 0")
            << withFormats({{1, 1, 32}, {24, 32, 0}}).bytes() << serve << noFormat << true;
        XSetupReply huge = withFormats({{24, 32, 64}});
        huge.width = 32767;
        huge.height = 16385;
        QTest::newRow("32767x16385 at pad 64")
            << huge.bytes() << serve
            << QStringLiteral("Refusing display :%1: its screen of 32767x16385 is larger than "
                              "8192x8192")
            << true;
        QTest::newRow("a truncated setup reply")
            << XSetupReply().bytes().left(100) << FakeXServer::AfterSetup::CLOSE
            << QStringLiteral("Could not get connection to display :%1") << false;
        // A successful setup's header and 248 bytes of noise, whose screen
        // and format counts (255 each) cannot fit.
        QByteArray garbage = QByteArray::fromHex("01000b0000003e00");
        for (int index = 0; index < 248; ++index) {
            garbage.append(static_cast<char>((index * 167 + 13) & 0xff));
        }
        garbage[XSetupReply::screenCountOffset] = static_cast<char>(255);
        garbage[XSetupReply::formatCountOffset] = static_cast<char>(255);
        QTest::newRow("garbage") << garbage << serve << malformed << true;
        // A successful status and nothing after the header: xcb itself
        // takes it for a failed connection.
        QTest::newRow("a setup of its header alone")
            << QByteArray::fromHex("01000b0000000000") << serve
            << QStringLiteral("Could not get connection to display :%1") << false;
        QByteArray lying = XSetupReply().bytes();
        lying[XSetupReply::formatCountOffset] = static_cast<char>(200);
        QTest::newRow("more formats than the reply holds") << lying << serve << malformed << true;
        lying = XSetupReply().bytes();
        lying[24] = static_cast<char>(0xff);
        lying[25] = static_cast<char>(0xff);
        QTest::newRow("a vendor longer than the reply") << lying << serve << malformed << true;
    }

    void aRefusedServer()
    {
        QFETCH(QByteArray, setup);
        QFETCH(FakeXServer::AfterSetup, afterSetup);
        QFETCH(QString, refusal);
        QFETCH(bool, once);
        FakeXServer server(setup, afterSetup);
        QVERIFY(server.start());
        // A display number may come again in a later case, and its lines with it.
        const QString line = refusal.arg(server.number());
        const int before = blackbox->logCount(line);
        call("configureKeyboard", {server.number(), hostileStation});
        QVERIFY2(blackbox->waitForLog(line, before + 1), qPrintable(blackbox->logTail()));
        for (int tick = 0; tick < ticksWatched; ++tick) {
            QVERIFY(blackbox->passTick());
        }
        if (once) {
            QCOMPARE(blackbox->logCount(line), before + 1);
            QCOMPARE(server.connections(), 1);
        }
        // Nothing was drawn on it.
        QCOMPARE(server.requests(FakeXServer::createWindowOpcode), 0);
        QCOMPARE(server.requests(FakeXServer::putImageOpcode), 0);
        stillServing();
        endOverlay(server.number(), hostileStation);
    }

    void aScreenThatRandRBringsUnderTheBound()
    {
        XSetupReply huge;
        huge.width = 32767;
        huge.height = 16385;
        FakeXServer server(huge.bytes());
        QVERIFY(server.start());
        const int display = server.number();
        const int before = blackbox->logCount(screenRefusal(display, 32767, 16385));
        call("configureKeyboard", {display, hostileStation});
        QVERIFY2(blackbox->waitForLog(screenRefusal(display, 32767, 16385), before + 1),
                 qPrintable(blackbox->logTail()));
        QCOMPARE(server.requests(FakeXServer::createWindowOpcode), 0);

        server.sendScreenChange(1024, 768);
        QVERIFY2(DaemonRunner::waitUntil(
                     [&] { return server.requests(FakeXServer::putImageOpcode) > 0; }),
                 qPrintable(blackbox->logTail()));
        QCOMPARE(server.requests(FakeXServer::createWindowOpcode), 1);

        const int refusedBefore = blackbox->logCount(screenRefusal(display, 9000, 9000));
        server.sendScreenChange(9000, 9000);
        QVERIFY2(blackbox->waitForLog(screenRefusal(display, 9000, 9000), refusedBefore + 1),
                 qPrintable(blackbox->logTail()));
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return server.requests(FakeXServer::unmapWindowOpcode) == 1; }));
        const int uploads = server.requests(FakeXServer::putImageOpcode);
        const int maps = server.requests(FakeXServer::mapWindowOpcode);

        server.sendScreenChange(800, 600);
        QVERIFY2(DaemonRunner::waitUntil([&] {
                     return server.requests(FakeXServer::mapWindowOpcode) > maps &&
                            server.requests(FakeXServer::putImageOpcode) > uploads;
                 }),
                 qPrintable(blackbox->logTail()));
        QCOMPARE(server.requests(FakeXServer::createWindowOpcode), 1);
        QCOMPARE(server.connections(), 1);
        stillServing();
        endOverlay(display, hostileStation);
    }

    // A server that stops reading right after a valid setup: every request
    // the daemon writes fails with EPIPE. That costs the station its
    // connection, never the daemon its life.
    void aServerThatStopsReadingAfterItsSetup()
    {
        FakeXServer server(XSetupReply().bytes(), FakeXServer::AfterSetup::STOP_READING);
        QVERIFY(server.start());
        call("configureKeyboard", {server.number(), hostileStation});
        // The connection is lost and made anew on a later tick.
        QVERIFY2(DaemonRunner::waitUntil([&] { return server.connections() >= 2; }),
                 qPrintable(blackbox->logTail()));
        stillServing();
        endOverlay(server.number(), hostileStation);
    }

    void aServerOfAnotherAccount()
    {
        if (geteuid() != 0) {
            QSKIP("Only root can make a socket as another account");
        }
        FakeXServer server(XSetupReply().bytes());
        QVERIFY(server.start(foreignUid));
        const QString warning =
            QStringLiteral("Display :%1 is served by uid %2 (pid %3), neither root nor this "
                           "daemon's account")
                .arg(server.number())
                .arg(foreignUid)
                .arg(getpid());
        const int before = blackbox->logCount(warning);
        call("configureKeyboard", {server.number(), hostileStation});
        QVERIFY2(blackbox->waitForLog(warning, before + 1), qPrintable(blackbox->logTail()));
        // It is used all the same.
        QVERIFY2(DaemonRunner::waitUntil(
                     [&] { return server.requests(FakeXServer::putImageOpcode) > 0; }),
                 qPrintable(blackbox->logTail()));
        for (int tick = 0; tick < ticksWatched; ++tick) {
            QVERIFY(blackbox->passTick());
        }
        QCOMPARE(blackbox->logCount(warning), before + 1);
        endOverlay(server.number(), hostileStation);
    }

private:
    void call(const QString& method, const QVariantList& arguments = {})
    {
        const QString error = blackbox->call(method, arguments);
        QVERIFY2(error.isEmpty(), qPrintable(error));
    }

    // The daemon runs, has stayed small, runs a combination typed at another
    // station in time and draws a new overlay on the real station.
    void stillServing()
    {
        QCOMPARE(kill(blackbox->getDaemon(), 0), 0);
        const qint64 peak = DaemonRunner::peakResidentKiB(blackbox->getDaemon());
        qInfo("the daemon's peak resident memory: %lld KiB", peak);
        QVERIFY(peak > 0);
        QVERIFY2(peak < peakLimitKiB, qPrintable(QString::number(peak)));
        const QString slow =
            blackbox->checkResponsive(typing, combinationLimitMs, introspectLimitMs);
        QVERIFY2(slow.isEmpty(), qPrintable(slow));
        endOverlay(v.number(), stationOfV);
        QVERIFY(DaemonRunner::waitUntil([&] { return v.overlayWindows() == 0; }));
        call("configureKeyboard", {v.number(), stationOfV});
        QVERIFY2(
            DaemonRunner::waitUntil([&] { return showsAPicture(v.screen()); }, pictureTimeoutMs),
            qPrintable(blackbox->logTail()));
    }

    void endOverlay(int display, int station)
    {
        call("configurationComplete", {display});
        QVERIFY2(blackbox->waitForLog(
                     QStringLiteral("Removing display configuration on display :%1 on station %2.")
                         .arg(display)
                         .arg(station),
                     ++removals[display]),
                 qPrintable(blackbox->logTail()));
    }

    StoppableStation v;
    std::unique_ptr<StationBlackbox> blackbox;
    QString typing;
    QHash<int, int> removals;
};

// Skipped (77) without a private mount namespace, dbus-daemon, umockdev or Xvfb.
SELVANE_STATION_BLACKBOX_TEST_MAIN(HostileXServerBlackboxTest)

#include "test_hostile_xserver_blackbox.moc"
