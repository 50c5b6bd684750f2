// The built daemon started with --grab-unassigned, on kernel input devices (uinput) and an
// Xvfb station configured over the bus by the platform simulator: while the station's overlay
// is up, a second reader of an unassigned keyboard's event node (one without a grab, as a
// session's X server reads it) receives none of its keys; once the configuration is complete
// it receives them again, and a keyboard that has been claimed and assigned is not held. A
// keyboard that another program holds is read without a grab, with one Warning per overlay
// period.
#include "DaemonRunner.h"
#include "PlatformSimulatorProcess.h"
#include "UinputDevice.h"
#include "XvfbServer.h"

#include "common/OwnedFd.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QtTest>

#include <linux/input.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <memory>
#include <utility>
#include <vector>

namespace {
// Waits under emulation: composing the first picture on the emulated CPU takes seconds.
constexpr int emulationTimeoutMs = 20000;
// Station 5 is claimed with F6, station 6 with F7; the keys typed to watch are neither.
constexpr int station = 5;
constexpr int otherStation = 6;

using Key = std::pair<int, int>; // code, value

// A reader of an event node that does not grab it, as a session's X server reads a device.
class PlainReader
{
public:
    explicit PlainReader(const QString& node)
        : fd(open(QFile::encodeName(node).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
    {
    }
    bool isOpen() const { return fd.isValid(); }
    int get() const { return fd.get(); }
    // The key records queued for this reader. The kernel hands a record to the readers of a
    // device while the writer's write() runs, so what was typed before is here or nowhere.
    std::vector<Key> takeKeys()
    {
        std::vector<Key> keys;
        input_event events[64];
        ssize_t bytes;
        while ((bytes = read(fd.get(), events, sizeof events)) > 0) {
            for (ssize_t i = 0; i < bytes / static_cast<ssize_t>(sizeof(input_event)); ++i) {
                if (events[i].type == EV_KEY) {
                    keys.emplace_back(events[i].code, events[i].value);
                }
            }
        }
        return keys;
    }

private:
    Orvanta::OwnedFd fd;
};

QByteArray describe(const std::vector<Key>& keys)
{
    QByteArray text;
    for (const Key& key : keys) {
        text += QByteArray::number(key.first) + (key.second ? " down; " : " up; ");
    }
    return text;
}

const std::vector<Key> typed(int code)
{
    return {{code, 1}, {code, 0}};
}
} // namespace

class DaemonGrabTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void anUnassignedKeyboardsKeysReachNoOtherReaderWhileTheOverlayIsUp();
    void aClaimedKeyboardIsLetGoBeforeItIsAssigned();
    void aKeyHeldWhenTheOverlayComesIsReleasedToTheOtherReader();
    void aKeyboardHeldByAnotherProgramIsReportedOncePerOverlay();

private:
    bool call(const QString& method, const QVariantList& arguments);
    bool type(UinputDevice& keyboard, int code);
    int logCount(const QString& level, const QString& message) const;
    // The daemon's log since this test function began: event nodes are numbered anew, so an
    // earlier test function may have written the same lines.
    QStringList testLog() const;
    // Waits for the count-th line of that level and message from the daemon's setGrabbed in
    // testLog(), within the bound under emulation, and prints how long it took.
    bool waitForGrabLine(const QString& level, const QString& message, int count = 1);
    QString daemonLog() const;

    std::unique_ptr<DaemonRunner> runner;
    std::unique_ptr<PlatformSimulatorProcess> simulator;
    std::unique_ptr<XvfbServer> server;
    QDBusConnection platform{QString()};
    pid_t daemon = 0;
    int logStart = 0;
};

void DaemonGrabTest::initTestCase()
{
    runner = std::make_unique<DaemonRunner>();
    QVERIFY(runner->isBusRunning());
    simulator =
        std::make_unique<PlatformSimulatorProcess>(runner->busAddress(), runner->path("calls"));
    QVERIFY(simulator->isReady());
    platform = QDBusConnection::connectToBus(runner->busAddress(), "platform");
    QVERIFY(platform.isConnected());
    server = std::make_unique<XvfbServer>();
    QVERIFY2(server->start(), qPrintable(server->startError()));

    const QString config = runner->path("keys.conf");
    QFile file(config);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("KEY_LEFTCTRL:KEY_F12:true\n");
    file.close();
    // The pictures, translations and font as built.
    runner->setShareDir(QStringLiteral(SELVANE_BUILT_DATA_DIR));
    daemon = runner->startDaemon({"-c", config, "--grab-unassigned"},
                                 DaemonRunner::logLine(QStringLiteral("Info"),
                                                       QStringLiteral("DBusInterface:connect"),
                                                       QStringLiteral("Connection established")));
    QVERIFY2(daemon > 0, qPrintable(daemonLog()));
}

void DaemonGrabTest::cleanupTestCase()
{
    QDBusConnection::disconnectFromBus("platform");
    if (daemon > 0) {
        QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);
    }
}

void DaemonGrabTest::init()
{
    logStart = static_cast<int>(DaemonRunner::readLines(runner->defaultLogFile()).size());
}

QStringList DaemonGrabTest::testLog() const
{
    return DaemonRunner::readLines(runner->defaultLogFile()).mid(logStart);
}

bool DaemonGrabTest::call(const QString& method, const QVariantList& arguments)
{
    const QDBusMessage reply = platform.call(DaemonRunner::daemonCall(method, arguments));
    if (reply.type() != QDBusMessage::ReplyMessage) {
        qWarning("%s: %s", qPrintable(method), qPrintable(reply.errorMessage()));
        return false;
    }
    return true;
}

bool DaemonGrabTest::type(UinputDevice& keyboard, int code)
{
    return keyboard.press(code) && keyboard.release(code);
}

int DaemonGrabTest::logCount(const QString& level, const QString& message) const
{
    const QRegularExpression pattern =
        DaemonRunner::logLine(level, QStringLiteral("EventDevice:setGrabbed"), message);
    int count = 0;
    for (const QString& line : testLog()) {
        count += pattern.match(line).hasMatch() ? 1 : 0;
    }
    return count;
}

bool DaemonGrabTest::waitForGrabLine(const QString& level, const QString& message, int count)
{
    QElapsedTimer clock;
    clock.start();
    const bool found = DaemonRunner::waitUntil([&] { return logCount(level, message) >= count; },
                                               emulationTimeoutMs);
    qInfo("\"%s\" after %lld ms", qPrintable(message), clock.elapsed());
    if (!found) {
        qWarning("the daemon's log:\n%s", qPrintable(daemonLog()));
    }
    return found;
}

QString DaemonGrabTest::daemonLog() const
{
    return DaemonRunner::readLines(runner->defaultLogFile()).join('\n');
}

void DaemonGrabTest::anUnassignedKeyboardsKeysReachNoOtherReaderWhileTheOverlayIsUp()
{
    UinputDevice keyboard(DeviceDescription::keyboard(QStringLiteral("Keyboard A")));
    QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
    const QString node = keyboard.devicePath();
    PlainReader reader(node);
    QVERIFY(reader.isOpen());

    QVERIFY(call("unassignedDeviceAdded", {node}));
    QVERIFY(DaemonRunner::waitUntil(
        [&] { return testLog().join('\n').contains("Opened " + node + " for reading "); },
        emulationTimeoutMs));
    // No overlay yet: the daemon takes nothing, the other reader sees every key.
    QVERIFY(type(keyboard, KEY_Q));
    QCOMPARE(describe(reader.takeKeys()), describe(typed(KEY_Q)));
    QCOMPARE(logCount("Info", "Grabbed device " + node), 0);

    QVERIFY(call("configureKeyboard", {server->getDisplayNumber(), station}));
    QVERIFY(waitForGrabLine("Info", "Grabbed device " + node));
    QVERIFY(type(keyboard, KEY_Q));
    QVERIFY(type(keyboard, KEY_W));
    QCOMPARE(describe(reader.takeKeys()), describe({}));

    QVERIFY(call("configurationComplete", {server->getDisplayNumber()}));
    QVERIFY(waitForGrabLine("Info", "Released device " + node));
    QVERIFY(type(keyboard, KEY_E));
    // Only what was typed after the release: nothing of the overlay's time comes late.
    QCOMPARE(describe(reader.takeKeys()), describe(typed(KEY_E)));

    QVERIFY(call("unassignedDeviceRemoved", {node}));
}

void DaemonGrabTest::aClaimedKeyboardIsLetGoBeforeItIsAssigned()
{
    UinputDevice keyboard(DeviceDescription::keyboard(QStringLiteral("Keyboard B")));
    QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
    const QString node = keyboard.devicePath();
    PlainReader reader(node);
    QVERIFY(reader.isOpen());

    QVERIFY(call("unassignedDeviceAdded", {node}));
    QVERIFY(call("configureKeyboard", {server->getDisplayNumber(), station}));
    QVERIFY(waitForGrabLine("Info", "Grabbed device " + node));

    // F6 claims the keyboard for station 5; the claim itself reaches the platform alone.
    QVERIFY(type(keyboard, KEY_F6));
    QVERIFY(simulator->waitForCall(
        QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 \"KeyboardDevice\"")
            .arg(node)
            .arg(server->getDisplayNumber()),
        emulationTimeoutMs));
    QVERIFY(waitForGrabLine("Info", "Released device " + node));
    const QStringList log = testLog();
    int released = -1;
    int removed = -1;
    for (int i = 0; i < log.size(); ++i) {
        if (released < 0 && log.at(i).endsWith("] Released device " + node)) {
            released = i;
        }
        if (removed < 0 && log.at(i).endsWith("] Removing unassigned device " + node)) {
            removed = i;
        }
    }
    QVERIFY(released >= 0);
    // Dropped from the unassigned set at the next update, after it was let go.
    QVERIFY2(removed < 0 || released < removed, qPrintable(daemonLog()));
    // The key press that claimed it was the daemon's alone; its release may have come after.
    const std::vector<Key> duringClaim = reader.takeKeys();
    const std::vector<Key> claimReleased{{KEY_F6, 0}};
    QVERIFY2(duringClaim.empty() || duringClaim == claimReleased,
             describe(duringClaim).constData());

    // The platform hands it to the station: the assigned side reads it, without a grab.
    QVERIFY(call("deviceAddedToStation", {node, station}));
    QVERIFY(DaemonRunner::waitUntil(
        [&] { return testLog().filter("] Opened " + node + " for reading ").size() >= 2; },
        emulationTimeoutMs));
    QVERIFY(type(keyboard, KEY_R));
    QCOMPARE(describe(reader.takeKeys()), describe(typed(KEY_R)));
    QCOMPARE(logCount("Info", "Grabbed device " + node), 1);

    QVERIFY(call("configurationComplete", {server->getDisplayNumber()}));
    QVERIFY(call("deviceRemovedFromStation", {node}));
}

void DaemonGrabTest::aKeyHeldWhenTheOverlayComesIsReleasedToTheOtherReader()
{
    UinputDevice keyboard(DeviceDescription::keyboard(QStringLiteral("Keyboard E")));
    // A second keyboard, free, tells when the overlay is up: it is taken then.
    UinputDevice witness(DeviceDescription::keyboard(QStringLiteral("Keyboard F")));
    QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
    QVERIFY2(witness.isValid(), qPrintable(witness.errorString()));
    const QString node = keyboard.devicePath();
    PlainReader reader(node);
    QVERIFY(reader.isOpen());
    QVERIFY(call("unassignedDeviceAdded", {node}));
    QVERIFY(call("unassignedDeviceAdded", {witness.devicePath()}));
    QVERIFY(keyboard.press(KEY_LEFTSHIFT));

    QVERIFY(call("configureKeyboard", {server->getDisplayNumber(), station}));
    QVERIFY(waitForGrabLine("Info", "Grabbed device " + witness.devicePath()));
    // Not taken while its key is down: the reader that saw the key go down sees it go up.
    QCOMPARE(logCount("Info", "Grabbed device " + node), 0);
    QVERIFY(keyboard.release(KEY_LEFTSHIFT));
    QCOMPARE(describe(reader.takeKeys()), describe(typed(KEY_LEFTSHIFT)));
    // Taken once the daemon has read the release.
    QVERIFY(waitForGrabLine("Info", "Grabbed device " + node));
    QVERIFY(type(keyboard, KEY_Q));
    QCOMPARE(describe(reader.takeKeys()), describe({}));

    QVERIFY(call("configurationComplete", {server->getDisplayNumber()}));
    QVERIFY(waitForGrabLine("Info", "Released device " + node));
    QVERIFY(call("unassignedDeviceRemoved", {node}));
    QVERIFY(call("unassignedDeviceRemoved", {witness.devicePath()}));
}

void DaemonGrabTest::aKeyboardHeldByAnotherProgramIsReportedOncePerOverlay()
{
    UinputDevice held(DeviceDescription::keyboard(QStringLiteral("Keyboard C")));
    UinputDevice free(DeviceDescription::keyboard(QStringLiteral("Keyboard D")));
    QVERIFY2(held.isValid(), qPrintable(held.errorString()));
    QVERIFY2(free.isValid(), qPrintable(free.errorString()));
    const QString heldNode = held.devicePath();
    const QString freeNode = free.devicePath();
    // Another program holds the keyboard before the daemon knows it.
    PlainReader owner(heldNode);
    QVERIFY(owner.isOpen());
    QCOMPARE(ioctl(owner.get(), EVIOCGRAB, 1), 0);

    const QString refused =
        "Could not grab device " + heldNode +
        ": Device or resource busy.  Its keys also reach whoever else reads it.";
    QVERIFY(call("unassignedDeviceAdded", {heldNode}));
    QVERIFY(call("configureKeyboard", {server->getDisplayNumber(), otherStation}));
    QVERIFY(waitForGrabLine("Warning", refused));
    // Later changes during the same overlay do not try it again: a device that comes, a new
    // picture for the changed counts.
    QVERIFY(call("unassignedDeviceAdded", {freeNode}));
    QVERIFY(waitForGrabLine("Info", "Grabbed device " + freeNode));
    QVERIFY(type(free, KEY_T));
    QVERIFY(call("logStatus", {}));
    QVERIFY(DaemonRunner::waitUntil(
        [&] { return testLog().join('\n').contains("Unassigned device: " + freeNode); },
        emulationTimeoutMs));
    QCOMPARE(logCount("Warning", refused), 1);
    // The daemon still reads the held keyboard: the owner gets its keys as well.
    QVERIFY(type(held, KEY_Y));
    QCOMPARE(describe(owner.takeKeys()), describe(typed(KEY_Y)));

    // The next overlay tries again, once.
    QVERIFY(call("configurationComplete", {server->getDisplayNumber()}));
    QVERIFY(waitForGrabLine("Info", "Released device " + freeNode));
    QVERIFY(call("configureKeyboard", {server->getDisplayNumber(), otherStation}));
    QVERIFY(waitForGrabLine("Warning", refused, 2));
    QVERIFY(waitForGrabLine("Info", "Grabbed device " + freeNode, 2));
    QCOMPARE(logCount("Warning", refused), 2);

    QCOMPARE(ioctl(owner.get(), EVIOCGRAB, 0), 0);
    QVERIFY(call("configurationComplete", {server->getDisplayNumber()}));
    QVERIFY(call("unassignedDeviceRemoved", {heldNode}));
    QVERIFY(call("unassignedDeviceRemoved", {freeNode}));
}

int main(int argc, char** argv)
{
    if (!UinputDevice::isAvailable()) {
        std::fprintf(stderr, "SKIP: /dev/uinput cannot be opened for writing\n");
        return 77;
    }
    QGuiApplication application(argc, argv);
    QString reason = DaemonRunner::unavailableReason();
    if (reason.isEmpty() && !XvfbServer::isInstalled()) {
        reason = QStringLiteral("Xvfb is not installed");
    }
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));
        return 77;
    }
    DaemonGrabTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_daemon_grab.moc"
