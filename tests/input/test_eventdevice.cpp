#include "KeyRecordText.h"
#include "LogCapture.h"
#include "UmockdevTestbed.h"
#include "input/EventDevice.h"
#include "keys/KeyEngine.h"

#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using Orvanta::Logger;

namespace {

// One key going down or up in a frame of its own, as UmockdevTestbed::pressKey() writes it.
std::vector<KeyRecord> pressed(std::uint16_t key)
{
    return {KeyRecord::press(key), KeyRecord::frameEnd()};
}

std::vector<KeyRecord> released(std::uint16_t key)
{
    return {KeyRecord::release(key), KeyRecord::frameEnd()};
}

std::vector<KeyRecord> operator+(std::vector<KeyRecord> first, const std::vector<KeyRecord>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

} // namespace

class EventDeviceTest : public QObject
{
    Q_OBJECT

private:
    // Takes the device's records once everything written to its node has arrived; false when
    // it did not arrive in time.
    static bool deliver(UmockdevTestbed& testbed, const QString& node, EventDevice& device,
                        EventDevice::Records& taken)
    {
        if (!testbed.waitUntilRead(node, device)) {
            return false;
        }
        taken = device.takeRecords();
        return true;
    }

    static void verifyLine(const LogCapture& capture, const QString& message, Logger::Level level,
                           const QString& function)
    {
        const LogCapture::Entry* line = capture.find(message);
        QVERIFY2(line, qPrintable("missing log line: " + message +
                                  "\nlogged: " + capture.messages().join(QLatin1Char('\n'))));
        QCOMPARE(line->level, level);
        QCOMPARE(line->file, QStringLiteral("EventDevice"));
        QCOMPARE(line->function, function);
    }

private Q_SLOTS:
    void grabAndReleaseAreLoggedOnceEach()
    {
        UmockdevTestbed testbed;
        const QString node =
            testbed.addDevice(DeviceDescription::keyboard(QStringLiteral("Desk Board")));
        EventDevice device(node);
        QVERIFY(device.getFd() != -1);
        QVERIFY(!device.isGrabbed());
        LogCapture capture;
        QVERIFY(device.setGrabbed(true));
        QVERIFY(device.isGrabbed());
        // Asked again, the device is held already: no second call, no second line.
        QVERIFY(device.setGrabbed(true));
        QCOMPARE(capture.messages(), QStringList{"Grabbed device " + node});
        verifyLine(capture, "Grabbed device " + node, Logger::LEVEL_INFO,
                   QStringLiteral("setGrabbed"));
        capture.clear();
        QVERIFY(device.setGrabbed(false));
        QVERIFY(!device.isGrabbed());
        QVERIFY(device.setGrabbed(false));
        QCOMPARE(capture.messages(), QStringList{"Released device " + node});
        verifyLine(capture, "Released device " + node, Logger::LEVEL_INFO,
                   QStringLiteral("setGrabbed"));
    }

    void aHeldDeviceIsReleasedBeforeItCloses()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        auto device = std::make_unique<EventDevice>(node);
        QVERIFY(device->setGrabbed(true));
        LogCapture capture;
        device.reset();
        QCOMPARE(capture.messages(),
                 (QStringList{"Released device " + node, "Closed device " + node}));
    }

    void aClosedDeviceIsNeverTaken()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::relativeOnly());
        EventDevice device(node);
        QCOMPARE(device.getFd(), -1);
        LogCapture capture;
        QVERIFY(!device.setGrabbed(true));
        QVERIFY(!device.isGrabbed());
        QVERIFY(device.setGrabbed(false));
        QVERIFY(capture.messages().isEmpty());
    }

    void openingAKeyboardLogsItsName()
    {
        UmockdevTestbed testbed;
        const QString node =
            testbed.addDevice(DeviceDescription::keyboard(QStringLiteral("Desk Board")));
        LogCapture capture;
        EventDevice device(node);
        QVERIFY(device.getFd() != -1);
        QCOMPARE(device.getDeviceFileName(), node);
        verifyLine(capture, "Opened " + node + " for reading ", Logger::LEVEL_INFO,
                   QStringLiteral("EventDevice"));
        verifyLine(capture, "Name of device at " + node + " is Desk Board.", Logger::LEVEL_INFO,
                   QStringLiteral("EventDevice"));
        QCOMPARE(capture.entries().size(), 2);
        QVERIFY(!device.getKeysAtOpen().isPressed());
        const EventDevice::Records taken = device.takeRecords();
        QVERIFY(taken.records.empty());
        QCOMPARE(taken.readError, 0);
    }

    void everyDeviceGetsANumberOfItsOwn()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        auto first = std::make_unique<EventDevice>(node);
        const EventDevice second(testbed.addDevice(DeviceDescription::mouse()));
        QVERIFY(first->getId() != 0);
        QVERIFY(second.getId() != 0);
        QVERIFY(first->getId() != second.getId());
        // A number is never given again, not even to the same node opened anew.
        const std::uint64_t gone = first->getId();
        first.reset();
        const EventDevice again(node);
        QVERIFY(again.getId() != gone);
        QVERIFY(again.getId() != second.getId());
    }

    void destroyingAnOpenDeviceLogsTheClose()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        auto* device = new EventDevice(node);
        LogCapture capture;
        delete device;
        verifyLine(capture, "Closed device " + node, Logger::LEVEL_INFO,
                   QStringLiteral("~EventDevice"));
    }

    void keyHeldAtOpenIsDownButNotPressedOnce()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_A};
        EventDevice device(testbed.addDevice(DeviceDescription::keyboard(), state));
        const KeyState& keys = device.getKeysAtOpen();
        QVERIFY(keys.isPressed(KEY_A));
        QVERIFY(!keys.isPressedOnce(KEY_A));
        QVERIFY(keys.isPressed());
        QVERIFY(!keys.isPressed(KEY_B));
        // The key went down before the open: no press of it is handed on.
        QVERIFY(device.takeRecords().records.empty());
    }

    void pressingAThenBHandsOnBothPressesWithTheirFrameEnds()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        QVERIFY(testbed.pressKey(node, KEY_A));
        QVERIFY(testbed.pressKey(node, KEY_B));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records),
                 describeKeyRecords(pressed(KEY_A) + pressed(KEY_B)));
        QCOMPARE(taken.readError, 0);
        // Handed on once: the queue is empty now.
        QVERIFY(device.takeRecords().records.empty());
    }

    void autoRepeatHandsOnNothing()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        QVERIFY(testbed.pressKey(node, KEY_A));
        for (int i = 0; i < 3; ++i) {
            QVERIFY(testbed.repeatKey(node, KEY_A));
        }
        QVERIFY(testbed.pressKey(node, KEY_B));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        // Neither the repeats nor the frame ends that carried only them.
        QCOMPARE(describeKeyRecords(taken.records),
                 describeKeyRecords(pressed(KEY_A) + pressed(KEY_B)));
    }

    void releaseIsHandedOn()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        QVERIFY(testbed.pressKey(node, KEY_A));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(pressed(KEY_A)));
        QVERIFY(testbed.releaseKey(node, KEY_A));
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(released(KEY_A)));
    }

    void otherEventTypesAreIgnored()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        QVERIFY(testbed.writeEvent(node, EV_MSC, MSC_SCAN, KEY_A));
        QVERIFY(testbed.writeEvent(node, EV_REL, KEY_A, 1));
        QVERIFY(testbed.writeEvent(node, EV_LED, KEY_A, 1));
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_REPORT, 0));
        QVERIFY(testbed.pressKey(node, KEY_B));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        // The first frame had no key record, so not even its end is handed on.
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(pressed(KEY_B)));
    }

    void aRecordAndAPartialOneHandOnTheRecordAndDropTheRest()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        LogCapture capture;
        const QByteArray record = UmockdevTestbed::eventRecord(EV_KEY, KEY_A, 1);
        QVERIFY(testbed.writeBytes(node, record + record.left(8)));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords({KeyRecord::press(KEY_A)}));
        QCOMPARE(taken.readError, 0);
        device.reportReadError(taken.readError);

        // Had the 8 bytes stayed queued, the next record would be read out of step.
        QVERIFY(testbed.pressKey(node, KEY_B));
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(pressed(KEY_B)));
        QCOMPARE(taken.readError, 0);
        device.reportReadError(taken.readError);
        QVERIFY(!capture.contains(QStringLiteral("Could not read a full event")));
        QCOMPARE(capture.entries().size(), 0);
    }

    void readsShorterThanOneRecordAreReported_data()
    {
        QTest::addColumn<int>("bytes");
        QTest::newRow("8 bytes") << 8;
        QTest::newRow("20 bytes, a whole record on 32-bit") << 20;
        QTest::newRow("one byte short of a record") << int(sizeof(input_event)) - 1;
    }

    void readsShorterThanOneRecordAreReported()
    {
        QFETCH(int, bytes);
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        LogCapture capture;
        QVERIFY(
            testbed.writeBytes(node, UmockdevTestbed::eventRecord(EV_KEY, KEY_A, 1).left(bytes)));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        QVERIFY(taken.records.empty());
        QVERIFY(taken.readError != 0);
        // Logged only when the owner reports it, as the read's own line.
        QCOMPARE(capture.entries().size(), 0);
        device.reportReadError(taken.readError);
        verifyLine(capture, QStringLiteral("Could not read a full event"), Logger::LEVEL_ERROR,
                   QStringLiteral("readDevice"));
        QCOMPARE(capture.entries().size(), 1);
        QVERIFY(device.getFd() != -1);

        // The error is handed on once; the device reads on.
        QVERIFY(testbed.pressKey(node, KEY_B));
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(pressed(KEY_B)));
        QCOMPARE(taken.readError, 0);
    }

    void keyCodesBeyondTheLastAreHandedOnAndPassedOver()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        KeyEngine engine;
        engine.setCommandCombinations({{{}, {800}}, {{}, {KEY_A}}});
        engine.setClaimKeys({{{}, {800}}});
        engine.setClaimKeyArmed(0, true);
        engine.addDevice(device.getId(), device.getKeysAtOpen());
        LogCapture capture;
        QVERIFY(testbed.writeEvent(node, EV_KEY, 800, 1));
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_REPORT, 0));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(pressed(800)));
        QCOMPARE(taken.readError, 0);
        device.reportReadError(taken.readError);
        QVERIFY(engine.feed(device.getId(), taken.records).empty());
        QVERIFY(!engine.keyState(device.getId())->isPressed());
        QVERIFY(engine.waitingCommands(device.getId()).empty());
        QVERIFY(engine.isClaimKeyArmed(0));
        QCOMPARE(capture.entries().size(), 0);

        // Neither the device nor the engine is put out by it: the next key counts as ever.
        QVERIFY(testbed.pressKey(node, KEY_A));
        QVERIFY(testbed.releaseKey(node, KEY_A));
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records),
                 describeKeyRecords(pressed(KEY_A) + released(KEY_A)));
        QCOMPARE(engine.feed(device.getId(), taken.records),
                 (std::vector<KeyEngine::Decision>{
                     {KeyEngine::Decision::Kind::RUN_COMMAND, device.getId(), 1}}));
        QVERIFY(device.getFd() != -1);
    }

    void mouseWithButtonsIsUsable()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::mouse());
        EventDevice device(node);
        QVERIFY(device.getFd() != -1);
        QCOMPARE(device.getDeviceFileName(), node);
        QVERIFY(testbed.writeEvent(node, EV_REL, REL_X, 5));
        QVERIFY(testbed.pressKey(node, BTN_LEFT));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(pressed(BTN_LEFT)));
    }

    void deviceWithoutKeysIsClosed()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::relativeOnly());
        LogCapture capture;
        auto* device = new EventDevice(node);
        verifyLine(capture, "Device at " + node + " does not have keys.  It will not be used.",
                   Logger::LEVEL_WARNING, QStringLiteral("EventDevice"));
        QCOMPARE(device->getFd(), -1);
        QVERIFY(device->getDeviceFileName().isEmpty());
        capture.clear();
        const EventDevice::Records taken = device->takeRecords();
        QVERIFY(taken.records.empty());
        QCOMPARE(taken.readError, 0);
        device->reportReadError(taken.readError);
        delete device;
        QCOMPARE(capture.entries().size(), 0);
    }

    void failingEventTypeQueryClosesTheDevice()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.eventTypesFail = true;
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        LogCapture capture;
        EventDevice device(node);
        verifyLine(capture, "Could not get event types for device " + node + ".",
                   Logger::LEVEL_WARNING, QStringLiteral("EventDevice"));
        QCOMPARE(device.getFd(), -1);
        QVERIFY(device.getDeviceFileName().isEmpty());
    }

    void nodeThatCannotBeOpenedIsReported()
    {
        QTemporaryDir directory;
        const QString path = directory.filePath(QStringLiteral("event-missing"));
        LogCapture capture;
        EventDevice device(path);
        verifyLine(capture, "Could not open " + path + " for reading.", Logger::LEVEL_WARNING,
                   QStringLiteral("EventDevice"));
        QCOMPARE(capture.entries().size(), 1);
        QCOMPARE(device.getFd(), -1);
        QVERIFY(device.getDeviceFileName().isEmpty());
    }

    void lastKeyCodeHeldAtOpenIsKeptButNotCountedAsAnyKey()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {767};
        EventDevice device(testbed.addDevice(DeviceDescription::keyboard(), state));
        QVERIFY(device.getKeysAtOpen().isPressed(767));
        QVERIFY(!device.getKeysAtOpen().isPressed(766));
        QVERIFY(!device.getKeysAtOpen().isPressed());
    }

    void eachDeviceHandsOnItsOwnRecords()
    {
        UmockdevTestbed testbed;
        const QString first = testbed.addDevice(DeviceDescription::keyboard());
        const QString second = testbed.addDevice(DeviceDescription::mouse());
        QVector<EventDevice*> devices{new EventDevice(first), new EventDevice(second)};
        QVERIFY(testbed.pressKey(second, BTN_RIGHT));
        QVERIFY(testbed.pressKey(first, KEY_Z));
        QVERIFY(testbed.waitUntilRead(first, *devices[0]));
        QVERIFY(testbed.waitUntilRead(second, *devices[1]));
        QCOMPARE(describeKeyRecords(devices[0]->takeRecords().records),
                 describeKeyRecords(pressed(KEY_Z)));
        QCOMPARE(describeKeyRecords(devices[1]->takeRecords().records),
                 describeKeyRecords(pressed(BTN_RIGHT)));
        qDeleteAll(devices);
    }

    void deleteClosedEventDevicesKeepsTheOpenOnesInOrder()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState failing;
        failing.eventTypesFail = true;
        QVector<EventDevice*> devices{
            new EventDevice(testbed.addDevice(DeviceDescription::keyboard())),
            new EventDevice(testbed.addDevice(DeviceDescription::relativeOnly())),
            new EventDevice(testbed.addDevice(DeviceDescription::mouse())),
            new EventDevice(testbed.addDevice(DeviceDescription::keyboard(), failing))};
        const QVector<EventDevice*> open{devices[0], devices[2]};
        QPointer<EventDevice> withoutKeys(devices[1]);
        QPointer<EventDevice> withoutTypes(devices[3]);
        EventDevice::deleteClosedEventDevices(devices);
        QCOMPARE(devices, open);
        QVERIFY(withoutKeys.isNull());
        QVERIFY(withoutTypes.isNull());
        qDeleteAll(devices);
    }

    void aDropWithNothingChangedHandsOnNothingForIt()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_A};
        state.laterKeysDown = {{KEY_A}};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        EventDevice device(node);
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_DROPPED, 0));
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_REPORT, 0));
        QVERIFY(testbed.pressKey(node, KEY_B));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(pressed(KEY_B)));
    }

    void frameEndsCarryTheKernelsMark_data()
    {
        QTest::addColumn<int>("reportValue");
        QTest::newRow("typed release") << 0;
        QTest::newRow("the kernel's release on unplug") << 1;
    }

    void frameEndsCarryTheKernelsMark()
    {
        QFETCH(int, reportValue);
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_LEFTCTRL, KEY_F1};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        EventDevice device(node);
        QVERIFY(testbed.writeEvent(node, EV_KEY, KEY_F1, 0));
        QVERIFY(testbed.writeEvent(node, EV_KEY, KEY_LEFTCTRL, 0));
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_REPORT, reportValue));
        // The next frame is a typed one again.
        QVERIFY(testbed.pressKey(node, KEY_A));
        EventDevice::Records taken;
        QVERIFY(deliver(testbed, node, device, taken));
        QCOMPARE(describeKeyRecords(taken.records),
                 describeKeyRecords({KeyRecord::release(KEY_F1), KeyRecord::release(KEY_LEFTCTRL),
                                     KeyRecord::frameEnd(reportValue), KeyRecord::press(KEY_A),
                                     KeyRecord::frameEnd(0)}));
    }

    void recordsWaitInTheDevicesQueueUntilTheUpdate()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::mouse());
        EventDevice device(node);
        QSignalSpy waiting(&device, &EventDevice::recordsWaiting);
        QVERIFY(testbed.pressKey(node, BTN_LEFT));
        QVERIFY(testbed.waitUntilRead(node, device));
        // The reader takes the records as they arrive and says so.
        QTRY_COMPARE(waiting.count(), 1);
        QCOMPARE(describeKeyRecords(device.takeRecords().records),
                 describeKeyRecords(pressed(BTN_LEFT)));
        // Everything was handed on: nothing more is announced.
        QCOMPARE(waiting.count(), 1);
        QVERIFY(device.takeRecords().records.empty());
    }

    void moreThanAnUpdatesShareOfRecordsWaitsForTheNextUpdate()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        // More than one update hands on, in portions the node's buffer holds, each taken by
        // the reader before the next. The pseudo-terminal that plays the node passes a write
        // of more than 1792 bytes on in parts, and a read between two parts would split a
        // record: 37 presses and releases are 1776 bytes.
        std::vector<KeyRecord> written;
        while (written.size() <= EventDevice::maxRecordsPerUpdate) {
            QByteArray bytes;
            for (int i = 0; i < 37; ++i) {
                bytes += UmockdevTestbed::eventRecord(EV_KEY, KEY_A, 1);
                bytes += UmockdevTestbed::eventRecord(EV_KEY, KEY_A, 0);
                written.push_back(KeyRecord::press(KEY_A));
                written.push_back(KeyRecord::release(KEY_A));
            }
            QVERIFY(testbed.writeBytes(node, bytes));
            QVERIFY(testbed.waitUntilRead(node, device));
        }
        QSignalSpy waiting(&device, &EventDevice::recordsWaiting);
        const auto share = static_cast<std::ptrdiff_t>(EventDevice::maxRecordsPerUpdate);
        EventDevice::Records taken = device.takeRecords();
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(std::vector<KeyRecord>(
                                                        written.begin(), written.begin() + share)));
        QCOMPARE(taken.readError, 0);
        // The rest is announced for the next update.
        QCOMPARE(waiting.count(), 1);
        taken = device.takeRecords();
        QCOMPARE(describeKeyRecords(taken.records), describeKeyRecords(std::vector<KeyRecord>(
                                                        written.begin() + share, written.end())));
        QCOMPARE(waiting.count(), 1);
    }

    void nodesAreOpenedByTheirDeviceNumber_data()
    {
        QTest::addColumn<int>("major");
        QTest::addColumn<bool>("opened");
        QTest::newRow("input device, major 13") << 13 << true;
        QTest::newRow("serial port, major 4") << 4 << false;
        QTest::newRow("pseudo-terminal, major 136") << 136 << false;
        QTest::newRow("no device number, no driver behind it") << 0 << true;
    }

    void nodesAreOpenedByTheirDeviceNumber()
    {
        QFETCH(int, major);
        QFETCH(bool, opened);
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.deviceMajor = major;
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        LogCapture capture;
        EventDevice device(node);
        QCOMPARE(device.getFd() != -1, opened);
        QCOMPARE(capture.contains("Could not open " + node + " for reading."), !opened);
        QCOMPARE(capture.contains("Opened " + node + " for reading "), opened);
    }

    void characterDevicesOtherThanInputDevicesAreNeverOpened()
    {
        LogCapture capture;
        EventDevice device(QStringLiteral("/dev/null"));
        QCOMPARE(device.getFd(), -1);
        verifyLine(capture, QStringLiteral("Could not open /dev/null for reading."),
                   Logger::LEVEL_WARNING, QStringLiteral("EventDevice"));
        QCOMPARE(capture.entries().size(), 1);
    }

    void deviceNamesReachTheLogByteForByte()
    {
        UmockdevTestbed testbed;
        const QByteArray utf8Name = QByteArrayLiteral("Clavier \xc2\xae Pro \xd0\x96");
        const QString node =
            testbed.addDevice(DeviceDescription::keyboard(QString::fromUtf8(utf8Name)));
        LogCapture capture;
        EventDevice device(node);
        const QString expected =
            "Name of device at " + node + " is " + QString::fromLatin1(utf8Name) + ".";
        verifyLine(capture, expected, Logger::LEVEL_INFO, QStringLiteral("EventDevice"));
        // The log writes Latin-1, so these are the kernel's bytes.
        QCOMPARE(capture.find(expected)->message.toLatin1(),
                 "Name of device at " + node.toLatin1() + " is " + utf8Name + ".");
    }
};

SELVANE_UMOCKDEV_TEST_MAIN(EventDeviceTest)
#include "test_eventdevice.moc"
