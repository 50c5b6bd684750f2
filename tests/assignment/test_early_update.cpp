// The central object's early updates, in-process on a private bus with the
// platform simulator and emulated keyboards: a D-Bus call or a key runs the
// input side of an update soon after it arrives, and every ordering rule of
// the periodic update still holds when "the next update" comes early.
//
// Some cases need a D-Bus call and key records to arrive together. The test
// then holds the main thread (a plain sleep, no events processed) while it
// sends both, so that both are waiting when the event loop runs again.
#include "OverlayTestBed.h"
#include "UmockdevTestbed.h"
#include "XvfbServer.h"

#include "assignment/AssignmentHandler.h"
#include "input/EventDevice.h"
#include "sequences/AssignedDeviceHandler.h"

#include <QDBusConnection>
#include <QDBusPendingCall>
#include <QElapsedTimer>
#include <QFile>
#include <QtTest>

#include <linux/input-event-codes.h>

#include <chrono>
#include <memory>
#include <thread>

namespace {

constexpr int keyPress = 1;
constexpr int keyRelease = 0;

QString assignedAuto(const QString& deviceFile, int displayId)
{
    return QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 \"KeyboardDevice\"")
        .arg(deviceFile)
        .arg(displayId);
}

// Long enough for a D-Bus call sent meanwhile to be waiting at the daemon's connection.
void holdMainThread()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
}

} // namespace

class EarlyUpdateTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        bed = std::make_unique<OverlayTestBed>();
        QVERIFY(bed->isReady());
        caller = QDBusConnection::connectToBus(qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"),
                                               QStringLiteral("caller"));
        QVERIFY(caller.isConnected());
    }
    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus(QStringLiteral("caller"));
        bed.reset();
    }
    void init()
    {
        testbed = std::make_unique<UmockdevTestbed>();
        bed->getLog().clear();
        callsBefore = bed->callCount();
    }
    void cleanup()
    {
        // Whatever a test left with the central object goes with it.
        bed->recreateCentral();
        testbed.reset();
    }

    void aClaimFollowedWithin5msByAnotherKeyClaimsOnce_data();
    void aClaimFollowedWithin5msByAnotherKeyClaimsOnce();
    void configurationCompleteAndTheKeyArrivingTogetherClaimNothing_data();
    void configurationCompleteAndTheKeyArrivingTogetherClaimNothing();
    void anUnassignedDeviceRemovedWhileItsKeysArriveClaimsNothing();
    void anAssignedDeviceRemovedWhileItsKeysArriveRunsNoCommand();
    void countChangesInManyEarlyUpdatesRedrawAtMostOncePerTick();

private:
    AssignmentHandler& assignment() { return *bed->getCentral().getAssignmentHandler(); }
    // Calls the central object's service and waits for the reply.
    bool call(const QString& method, const QVariantList& arguments = {});
    // Sends the call without waiting for its reply.
    void send(const QString& method, const QVariantList& arguments = {});
    // An emulated keyboard handed to the central object as unassigned.
    QString addUnassignedKeyboard();
    // Has the display :displayId wait for its station's key, with no X server.
    bool waitForKey(int displayId, int stationId);
    const DisplayConfiguration* display(int displayId);
    bool isUnassigned(const QString& node);
    bool writeKey(const QString& node, int code, int value);
    // How often the platform received the call during this test.
    int countCalls(const QString& call) const;
    // Waits until one update has run that began after this call: a status
    // request is answered by the update that runs the D-Bus queue.
    bool waitForAnUpdate();

    std::unique_ptr<OverlayTestBed> bed;
    std::unique_ptr<UmockdevTestbed> testbed;
    QDBusConnection caller{QString()};
    QList<QDBusPendingCall> sent;
    // The platform's record before this test.
    int callsBefore = 0;
};

bool EarlyUpdateTest::call(const QString& method, const QVariantList& arguments)
{
    QDBusPendingCall pending = caller.asyncCall(DaemonRunner::daemonCall(method, arguments));
    return DaemonRunner::waitUntil([&] { return pending.isFinished(); }, 5000) &&
           !pending.isError();
}

void EarlyUpdateTest::send(const QString& method, const QVariantList& arguments)
{
    sent.append(caller.asyncCall(DaemonRunner::daemonCall(method, arguments)));
}

QString EarlyUpdateTest::addUnassignedKeyboard()
{
    const QString node = testbed->addDevice(DeviceDescription::keyboard());
    if (node.isEmpty() || !call(QStringLiteral("unassignedDeviceAdded"), {node}) ||
        !waitForAnUpdate() || !isUnassigned(node)) {
        return QString();
    }
    return node;
}

bool EarlyUpdateTest::waitForKey(int displayId, int stationId)
{
    if (!call(QStringLiteral("configureKeyboard"), {displayId, stationId})) {
        return false;
    }
    const QString failed = QStringLiteral("Could not get connection to display :%1").arg(displayId);
    return DaemonRunner::waitUntil([&] {
        const DisplayConfiguration* configuration = display(displayId);
        return configuration && configuration->isLanguageDetermined() &&
               bed->getLog().contains(failed) &&
               configuration->getState() == DisplayConfiguration::STATE_CONFIGURING_KEYBOARD;
    });
}

const DisplayConfiguration* EarlyUpdateTest::display(int displayId)
{
    for (const DisplayConfiguration* configuration : assignment().getDisplayConfigurations()) {
        if (configuration->getDisplayId() == displayId) {
            return configuration;
        }
    }
    return nullptr;
}

bool EarlyUpdateTest::isUnassigned(const QString& node)
{
    for (const EventDevice* device : assignment().getUnassignedDevices()) {
        if (device->getDeviceFileName() == node) {
            return true;
        }
    }
    return false;
}

bool EarlyUpdateTest::writeKey(const QString& node, int code, int value)
{
    return value == keyPress ? testbed->pressKey(node, code) : testbed->releaseKey(node, code);
}

int EarlyUpdateTest::countCalls(const QString& call) const
{
    return static_cast<int>(bed->callsSince(callsBefore).count(call));
}

bool EarlyUpdateTest::waitForAnUpdate()
{
    // The last line of the status.
    static const QRegularExpression status(
        QStringLiteral("^There are \\d+ assigned device\\(s\\) being managed:$"));
    const auto statusCount = [&] {
        int count = 0;
        for (const LogCapture::Entry& entry : bed->getLog().entries()) {
            count += status.match(entry.message).hasMatch() ? 1 : 0;
        }
        return count;
    };
    const int before = statusCount();
    return call(QStringLiteral("logStatus")) &&
           DaemonRunner::waitUntil([&] { return statusCount() > before; });
}

void EarlyUpdateTest::aClaimFollowedWithin5msByAnotherKeyClaimsOnce_data()
{
    QTest::addColumn<bool>("held");
    // The claim is read in one update and the next key in a later one, which
    // drops the claimed keyboard before it reads anything.
    QTest::newRow("read in two updates") << false;
    // Both keys are read in one update: the second one finds the keyboard
    // already claimed.
    QTest::newRow("read in one update") << true;
}

void EarlyUpdateTest::aClaimFollowedWithin5msByAnotherKeyClaimsOnce()
{
    QFETCH(bool, held);
    QVERIFY(waitForKey(91, 2)); // KEY_F3
    QVERIFY(waitForKey(92, 5)); // KEY_F6
    const QString keyboard = addUnassignedKeyboard();
    QVERIFY(!keyboard.isEmpty());

    QVERIFY(writeKey(keyboard, KEY_F3, keyPress));
    if (held) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } else {
        // Lets the claim be read first.
        QVERIFY(testbed->waitForPendingInput(keyboard, 0));
        QTest::qWait(5);
    }
    QVERIFY(writeKey(keyboard, KEY_F6, keyPress));
    QVERIFY(writeKey(keyboard, KEY_F3, keyRelease));
    QVERIFY(writeKey(keyboard, KEY_F6, keyRelease));
    if (held) {
        holdMainThread();
    }

    QVERIFY(DaemonRunner::waitUntil([&] { return countCalls(assignedAuto(keyboard, 91)) > 0; }));
    QVERIFY(DaemonRunner::waitUntil([&] { return !isUnassigned(keyboard); }));
    QVERIFY(waitForAnUpdate());
    QVERIFY(waitForAnUpdate());
    QCOMPARE(countCalls(assignedAuto(keyboard, 91)), 1);
    QCOMPARE(countCalls(assignedAuto(keyboard, 92)), 0);
    QCOMPARE(display(91)->getState(), DisplayConfiguration::STATE_KEYBOARD_CONFIGURED);
    QCOMPARE(display(92)->getState(), DisplayConfiguration::STATE_CONFIGURING_KEYBOARD);
    QCOMPARE(bed->getLog().count("Removing unassigned device " + keyboard), 1);
}

void EarlyUpdateTest::configurationCompleteAndTheKeyArrivingTogetherClaimNothing_data()
{
    QTest::addColumn<bool>("keyFirst");
    QTest::newRow("the call, then the key") << false;
    QTest::newRow("the key, then the call") << true;
}

void EarlyUpdateTest::configurationCompleteAndTheKeyArrivingTogetherClaimNothing()
{
    QFETCH(bool, keyFirst);
    QVERIFY(waitForKey(93, 2)); // KEY_F3
    const QString keyboard = addUnassignedKeyboard();
    QVERIFY(!keyboard.isEmpty());

    if (!keyFirst) {
        send(QStringLiteral("configurationComplete"), {93});
    }
    QVERIFY(writeKey(keyboard, KEY_F3, keyPress));
    QVERIFY(writeKey(keyboard, KEY_F3, keyRelease));
    if (keyFirst) {
        send(QStringLiteral("configurationComplete"), {93});
    }
    holdMainThread();

    QVERIFY(DaemonRunner::waitUntil([&] {
        return bed->getLog().contains(
            QStringLiteral("Removing display configuration on display :93 on station 2."));
    }));
    QVERIFY(waitForAnUpdate());
    QVERIFY(waitForAnUpdate());
    QCOMPARE(countCalls(assignedAuto(keyboard, 93)), 0);
    QVERIFY(isUnassigned(keyboard));
    QVERIFY(!display(93));
}

// The removal is queued before the update that reads the keyboard's records,
// so the keyboard is gone before its key could claim it.
void EarlyUpdateTest::anUnassignedDeviceRemovedWhileItsKeysArriveClaimsNothing()
{
    QVERIFY(waitForKey(94, 2)); // KEY_F3
    const QString keyboard = addUnassignedKeyboard();
    QVERIFY(!keyboard.isEmpty());

    QVERIFY(writeKey(keyboard, KEY_LEFTSHIFT, keyPress));
    send(QStringLiteral("unassignedDeviceRemoved"), {keyboard});
    QVERIFY(writeKey(keyboard, KEY_F3, keyPress));
    QVERIFY(writeKey(keyboard, KEY_F3, keyRelease));
    QVERIFY(writeKey(keyboard, KEY_LEFTSHIFT, keyRelease));
    holdMainThread();

    QVERIFY(DaemonRunner::waitUntil([&] { return !isUnassigned(keyboard); }));
    QVERIFY(waitForAnUpdate());
    QCOMPARE(countCalls(assignedAuto(keyboard, 94)), 0);
    QCOMPARE(display(94)->getState(), DisplayConfiguration::STATE_CONFIGURING_KEYBOARD);
    QCOMPARE(bed->getLog().count("Removing unassigned device " + keyboard), 1);
    QCOMPARE(bed->getLog().count("Closed device " + keyboard), 1);
}

// A combination pressed before the removal was requested, and released
// after, completes nothing: the device goes before its release is read.
void EarlyUpdateTest::anAssignedDeviceRemovedWhileItsKeysArriveRunsNoCommand()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString ran = dir.filePath("ran");
    QFile keys(bed->keysFile());
    QVERIFY(keys.open(QIODevice::WriteOnly));
    keys.write("KEY_LEFTCTRL:KEY_F1:echo ran >> " + ran.toUtf8() + "\n");
    keys.close();
    bed->recreateCentral();

    const QString keyboard = testbed->addDevice(DeviceDescription::keyboard());
    QVERIFY(call(QStringLiteral("deviceAddedToStation"), {keyboard, 3}));
    QVERIFY(waitForAnUpdate());
    QVERIFY(bed->getCentral().getAssignedDeviceHandler()->getEventDevice(keyboard));

    // Typed whole, the combination runs its command.
    for (const auto& [key, value] : {std::pair{KEY_LEFTCTRL, keyPress},
                                     {KEY_F1, keyPress},
                                     {KEY_F1, keyRelease},
                                     {KEY_LEFTCTRL, keyRelease}}) {
        QVERIFY(writeKey(keyboard, key, value));
    }
    QVERIFY(DaemonRunner::waitUntil([&] { return QFile::exists(ran); }));
    QFile::remove(ran);

    QVERIFY(writeKey(keyboard, KEY_LEFTCTRL, keyPress));
    QVERIFY(writeKey(keyboard, KEY_F1, keyPress));
    QVERIFY(testbed->waitForPendingInput(keyboard, 0));
    QVERIFY(waitForAnUpdate());
    send(QStringLiteral("deviceRemovedFromStation"), {keyboard});
    QVERIFY(writeKey(keyboard, KEY_F1, keyRelease));
    QVERIFY(writeKey(keyboard, KEY_LEFTCTRL, keyRelease));
    holdMainThread();

    QVERIFY(DaemonRunner::waitUntil(
        [&] { return !bed->getCentral().getAssignedDeviceHandler()->getEventDevice(keyboard); }));
    QVERIFY(waitForAnUpdate());
    QTest::qWait(200);
    QVERIFY(!QFile::exists(ran));
    QCOMPARE(bed->getLog().count("Removing assigned device " + keyboard), 1);
}

// The counts change in every early update, far more often than the timer
// runs; each display still recomposes its picture at most once per tick.
void EarlyUpdateTest::countChangesInManyEarlyUpdatesRedrawAtMostOncePerTick()
{
    XvfbServer station;
    QVERIFY(station.start());
    QVERIFY(call(QStringLiteral("configureKeyboard"), {station.getDisplayNumber(), 2}));
    // Every keyboard picture asks for the counts first.
    const QString composition = QStringLiteral("com.orvanta.DB.DeviceGetNumberOfAssignedKeyboards");
    QVERIFY(DaemonRunner::waitUntil([&] { return countCalls(composition) >= 1; }));
    QTest::qWait(300);
    const int before = countCalls(composition);

    // Removing a device that is not held changes nothing but still redraws.
    QElapsedTimer window;
    window.start();
    for (int i = 0; i < 80; ++i) {
        send(QStringLiteral("unassignedDeviceRemoved"), {"/dev/input/event-none"});
        QTest::qWait(5);
    }
    const qint64 elapsed = window.elapsed();
    QTest::qWait(300);

    const int redraws = countCalls(composition) - before;
    // A tick at each end of the window, and the last change's own.
    const int mostPossible = static_cast<int>(elapsed / 100) + 3;
    qInfo("%d redraws in %lld ms", redraws, elapsed);
    QVERIFY2(redraws >= 2 && redraws <= mostPossible,
             qPrintable(QStringLiteral("%1 redraws in %2 ms").arg(redraws).arg(elapsed)));
}

SELVANE_OVERLAY_TEST_MAIN(EarlyUpdateTest, true)

#include "test_early_update.moc"
