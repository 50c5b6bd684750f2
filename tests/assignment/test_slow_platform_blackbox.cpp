// A platform that answers slowly, hangs or is missing never stalls the built
// daemon for long: every call to a platform service gives up after 2 s and is
// then treated as a failed call (counts 0, empty tags, the "en" fallback).
// Each case runs the daemon on a private bus of its own with the shipped
// pictures and translations against one Xvfb station and emulated keyboards.
#include "DaemonRunner.h"
#include "EmulatedInput.h"
#include "OverlayTestBed.h"
#include "PlatformSimulatorProcess.h"
#include "UmockdevTestbed.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDateTime>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QSet>
#include <QtTest>

#include <memory>

namespace {

const QByteArray windowName = QByteArrayLiteral("Press F Key");
const QRect screenArea(0, 0, 1024, 768);

// What a station's platform looks like when it answers: the overlay would
// show these if the daemon waited for the late answers.
const QStringList answeringPlatform = {
    "--assigned-keyboards", "3",     "--unassigned-keyboards", "4", "--tag",
    "name=Library desk",    "--tag", "location=Ground floor"};

QString fallbackWarning()
{
    return QStringLiteral("Cannot find strings for language ''.  Using language 'en' as a default");
}

// The time stamp of the first line of the log that matches.
QDateTime loggedAt(const QStringList& log, const QRegularExpression& pattern)
{
    for (const QString& line : log) {
        if (pattern.match(line).hasMatch()) {
            return QDateTime::fromString(line.mid(1, 23),
                                         QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"));
        }
    }
    return {};
}

// A composed overlay, not the window's white background: antialiased texts
// and the picture's shades give many colours.
bool showsAPicture(const QImage& screen)
{
    if (screen.isNull()) {
        return false;
    }
    QSet<QRgb> colours;
    for (int y = 0; y < screen.height(); y += 4) {
        for (int x = 0; x < screen.width(); x += 4) {
            colours.insert(screen.pixel(x, y));
        }
    }
    return colours.size() > 16;
}

} // namespace

class SlowPlatformBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(station.start());
        input = std::make_unique<EmulatedInput>(SELVANE_EMULATED_INPUT, 2);
        QCOMPARE(input->nodes.size(), 2);
        config = keysDir.filePath("keys.conf");
        output = keysDir.filePath("commands-run");
        QFile file(config);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("KEY_LEFTCTRL:KEY_F1:echo \"station $STATION_ID\" >> " + output.toUtf8() + "\n");
    }

    void cleanup()
    {
        if (daemon > 0) {
            QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);
        }
        daemon = 0;
        QDBusConnection::disconnectFromBus("platform");
        simulator.reset();
        runner.reset();
    }

    // First, so that its picture is the reference of a platform that gave
    // nothing: counts 0, no name, no location, English.
    void withoutPlatformServicesTheOverlayShowsNoCounts()
    {
        startDaemon({});
        call("configureKeyboard", {station.getDisplayNumber(), 2});
        const QString created = QStringLiteral("Creating display configuration on display :%1 "
                                               "on station 2.")
                                    .arg(station.getDisplayNumber());
        waitForLine("Info", "DisplayConfiguration:DisplayConfiguration", created);
        waitForLine("Warning", "DisplayConfiguration:determineLanguage", fallbackWarning());
        waitForLine("Info", "DisplayConfiguration:determineLanguage",
                    "Using language en on station 2");
        // A name nobody owns is refused by the bus at once: no time-out.
        const QStringList log = DaemonRunner::readLines(runner->defaultLogFile());
        const qint64 localeMs =
            loggedAt(log, DaemonRunner::logMessage(created))
                .msecsTo(loggedAt(log, DaemonRunner::logMessage(fallbackWarning())));
        QVERIFY2(localeMs >= 0 && localeMs < 1500, qPrintable(QString::number(localeMs)));

        const XDisplayProbe probe(station.getDisplayName());
        QVERIFY(probe.isConnected());
        QVERIFY(
            DaemonRunner::waitUntil([&] { return probe.windowsNamed(windowName).size() == 1; }));
        QVERIFY(
            DaemonRunner::waitUntil([&] { return showsAPicture(probe.screenshot(screenArea)); }));
        nothingAnswered = probe.screenshot(screenArea);
    }

    void aSlowDatabaseDelaysNeitherTheOverlayNorTheKeyCombinations()
    {
        QVERIFY2(!nothingAnswered.isNull(), "needs the picture of the test before");
        startDaemon(answeringPlatform + QStringList{"--delay", "com.orvanta.DB=60"});
        const QString keyboard = input->nodes.at(0);
        call("deviceAddedToStation", {keyboard, 3});
        waitForLine("Info", "AssignedDeviceHandler:addAssignedDevice",
                    "Adding assigned device " + keyboard);

        call("configureKeyboard", {station.getDisplayNumber(), 2});
        // The daemon now waits for the database, four times.
        QVERIFY(simulator->waitForCall("com.orvanta.DB.DeviceGetNumberOfAssignedKeyboards"));
        QElapsedTimer typed;
        typed.start();
        QVERIFY(input->type(0, {"KEY_LEFTCTRL", "KEY_F1"}));
        QVERIFY2(
            DaemonRunner::waitUntil(
                [&] { return DaemonRunner::readLines(output) == QStringList{"station 3"}; }, 10000),
            qPrintable(DaemonRunner::readLines(runner->defaultLogFile()).join('\n')));
        QVERIFY2(typed.elapsed() < 10000, qPrintable(QString::number(typed.elapsed())));

        // All four calls were made and none of their answers reached the picture.
        const QStringList databaseCalls = simulator->calls().filter("com.orvanta.DB.");
        QCOMPARE(databaseCalls, (QStringList{"com.orvanta.DB.DeviceGetNumberOfAssignedKeyboards",
                                             "com.orvanta.DB.DeviceGetNumberOfUnassignedKeyboards",
                                             "com.orvanta.DB.StationGetTag \"name\"",
                                             "com.orvanta.DB.StationGetTag \"location\""}));
        const XDisplayProbe probe(station.getDisplayName());
        QVERIFY(probe.isConnected());
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return probe.screenshot(screenArea) == nothingAnswered; }));
    }

    void aHungSessionControllerFallsBackToEnglish()
    {
        startDaemon(answeringPlatform + QStringList{"--hang", "com.orvanta.Controllers.Session"});
        call("configureKeyboard", {station.getDisplayNumber(), 5});
        const QString created = QStringLiteral("Creating display configuration on display :%1 "
                                               "on station 5.")
                                    .arg(station.getDisplayNumber());
        waitForLine("Info", "DisplayConfiguration:DisplayConfiguration", created);
        waitForLine("Warning", "DisplayConfiguration:determineLanguage", fallbackWarning());
        waitForLine("Info", "DisplayConfiguration:determineLanguage",
                    "Using language en on station 5");
        QVERIFY(simulator->waitForCall(QStringLiteral("com.orvanta.Controllers.Session."
                                                      "GetLocaleForUserOnDisplay %1")
                                           .arg(station.getDisplayNumber())));
        // The locale was waited for 2 s, not Qt's default of 25 s.
        const QStringList log = DaemonRunner::readLines(runner->defaultLogFile());
        const qint64 localeMs =
            loggedAt(log, DaemonRunner::logMessage(created))
                .msecsTo(loggedAt(log, DaemonRunner::logMessage(fallbackWarning())));
        QVERIFY2(localeMs >= 1900 && localeMs < 3000, qPrintable(QString::number(localeMs)));

        const XDisplayProbe probe(station.getDisplayName());
        QVERIFY(probe.isConnected());
        QVERIFY(
            DaemonRunner::waitUntil([&] { return probe.windowsNamed(windowName).size() == 1; }));
        call("logStatus");
        waitForLine("Info", "AssignmentHandler:logStatus",
                    QStringLiteral("Display configuration running on display: %1  station: 5")
                        .arg(station.getDisplayNumber()));
    }

private:
    // Starts the daemon on a fresh bus, with the simulator given these
    // options, or with no platform service at all when there are none.
    void startDaemon(const QStringList& simulatorOptions)
    {
        runner = std::make_unique<DaemonRunner>();
        QVERIFY(runner->isBusRunning());
        runner->setShareDir(SELVANE_BUILT_DATA_DIR);
        runner->setExtraEnvironment(input->environment);
        if (!simulatorOptions.isEmpty()) {
            simulator = std::make_unique<PlatformSimulatorProcess>(
                runner->busAddress(), runner->path("calls"), simulatorOptions);
            QVERIFY(simulator->isReady());
        }
        platform = QDBusConnection::connectToBus(runner->busAddress(), "platform");
        QVERIFY(platform.isConnected());
        daemon = runner->startDaemon(
            {"-c", config},
            DaemonRunner::logLine("Info", "DBusInterface:connect", "Connection established"));
        QVERIFY2(daemon > 0,
                 qPrintable(DaemonRunner::readLines(runner->defaultLogFile()).join('\n')));
    }

    void call(const QString& method, const QVariantList& arguments = {})
    {
        const QDBusMessage reply = platform.call(DaemonRunner::daemonCall(method, arguments));
        QVERIFY2(reply.type() == QDBusMessage::ReplyMessage, qPrintable(reply.errorMessage()));
    }

    void waitForLine(const QString& level, const QString& place, const QString& message)
    {
        QVERIFY2(DaemonRunner::waitForLine(runner->defaultLogFile(),
                                           DaemonRunner::logLine(level, place, message)),
                 qPrintable("no log line \"" + message + "\" in:\n" +
                            DaemonRunner::readLines(runner->defaultLogFile()).join('\n')));
    }

    XvfbServer station;
    std::unique_ptr<EmulatedInput> input;
    QTemporaryDir keysDir;
    QString config;
    QString output;
    std::unique_ptr<DaemonRunner> runner;
    std::unique_ptr<PlatformSimulatorProcess> simulator;
    QDBusConnection platform{QString()};
    pid_t daemon = 0;
    QImage nothingAnswered;
};

// Skipped (77) without a private mount namespace, dbus-daemon, umockdev or Xvfb.
SELVANE_STATION_BLACKBOX_TEST_MAIN(SlowPlatformBlackboxTest)

#include "test_slow_platform_blackbox.moc"
