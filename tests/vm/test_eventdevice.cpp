// EventDevice on kernel input devices: the keys held at open time, the records
// the kernel hands over and the unplug, which emulated nodes cannot show the way
// the kernel does.
#include "KeyRecordText.h"
#include "LogCapture.h"
#include "UinputTestMain.h"

#include "input/EventDevice.h"

#include <linux/input-event-codes.h>

#include <QDeadlineTimer>

#include <cerrno>

using Orvanta::Logger;

namespace {
// Takes the device's records until `count` have come, or a read error, or 5 s have passed:
// the input reader takes them off the kernel on a thread of its own, a moment after they
// were sent.
EventDevice::Records takeRecords(EventDevice& device, std::size_t count)
{
    EventDevice::Records all;
    QDeadlineTimer deadline(5000);
    while (all.records.size() < count && all.readError == 0 && !deadline.hasExpired()) {
        EventDevice::Records taken = device.takeRecords();
        all.records.insert(all.records.end(), taken.records.begin(), taken.records.end());
        all.readError = taken.readError;
        if (taken.records.empty() && taken.readError == 0) {
            QTest::qWait(1);
        }
    }
    return all;
}
} // namespace

class EventDeviceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void keyHeldWhenOpenedCountsAsDownButNotAsJustPressed_data()
    {
        QTest::addColumn<DeviceDescription>("description");
        QTest::addColumn<int>("key");
        QTest::newRow("A held on a keyboard") << DeviceDescription::keyboard() << KEY_A;
        QTest::newRow("left button held on a mouse") << DeviceDescription::mouse() << BTN_LEFT;
    }

    void keyHeldWhenOpenedCountsAsDownButNotAsJustPressed()
    {
        QFETCH(DeviceDescription, description);
        QFETCH(int, key);
        UinputDevice uinput(description);
        QVERIFY2(uinput.isValid(), qPrintable(uinput.errorString()));
        QVERIFY(uinput.press(key));

        EventDevice device(uinput.devicePath());
        QVERIFY(device.getFd() != -1);
        const KeyState& keys = device.getKeysAtOpen();
        QVERIFY(keys.isPressed(key));
        QVERIFY(keys.isPressed());
        QVERIFY(!keys.isPressedOnce(key));

        // The press happened before the open, so nothing of it is queued.
        EventDevice::Records taken = device.takeRecords();
        QVERIFY(taken.records.empty());
        QCOMPARE(taken.readError, 0);

        const auto code = static_cast<std::uint16_t>(key);
        QVERIFY(uinput.release(key));
        taken = takeRecords(device, 2);
        QCOMPARE(describeKeyRecords(taken.records),
                 describeKeyRecords({KeyRecord::release(code), KeyRecord::frameEnd()}));
        QCOMPARE(taken.readError, 0);
    }

    void heldKeyRepeatsAreIgnored()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        EventDevice device(keyboard.devicePath());
        QVERIFY(device.getFd() != -1);

        QVERIFY(keyboard.press(KEY_B));
        for (int repeat = 0; repeat < 3; ++repeat) {
            QVERIFY(keyboard.send(EV_KEY, KEY_B, 2));
            QVERIFY(keyboard.sync());
        }
        QVERIFY(keyboard.release(KEY_B));
        const EventDevice::Records taken = takeRecords(device, 4);
        // The press and the release; neither the repeats in between nor their frames.
        QCOMPARE(describeKeyRecords(taken.records),
                 describeKeyRecords({KeyRecord::press(KEY_B), KeyRecord::frameEnd(),
                                     KeyRecord::release(KEY_B), KeyRecord::frameEnd()}));
        QCOMPARE(taken.readError, 0);
    }

    void unplugClosesTheDeviceAndItsDestructorStaysSilent()
    {
        UinputDevice uinput(DeviceDescription::keyboard());
        QVERIFY2(uinput.isValid(), qPrintable(uinput.errorString()));
        const QString path = uinput.devicePath();
        auto* device = new EventDevice(path);
        QVERIFY(device->getFd() != -1);

        // A key still down at the unplug: the kernel queues a release for it on the way out.
        QVERIFY(uinput.press(KEY_A));
        EventDevice::Records taken = takeRecords(*device, 2);
        QCOMPARE(describeKeyRecords(taken.records),
                 describeKeyRecords({KeyRecord::press(KEY_A), KeyRecord::frameEnd()}));
        QCOMPARE(taken.readError, 0);
        device->reportReadError(taken.readError);

        LogCapture capture;
        QVERIFY2(uinput.unplug(), qPrintable(uinput.errorString()));
        // The kernel's release of A, in a frame it marks as its own, comes first when the
        // reader reads it before the device is gone; either way the reads end with ENODEV.
        taken = takeRecords(*device, 3);
        if (!taken.records.empty()) {
            QCOMPARE(describeKeyRecords(taken.records),
                     describeKeyRecords({KeyRecord::release(KEY_A), KeyRecord::frameEnd(1)}));
        }
        QCOMPARE(taken.readError, ENODEV);
        // Told and closed only once the owner has dealt with the records before the error.
        QVERIFY2(capture.entries().isEmpty(), qPrintable(capture.messages().join('\n')));
        device->reportReadError(taken.readError);
        const QString removed = "Device " + path + " has been removed.  Closing device.";
        const LogCapture::Entry* entry = capture.find(removed);
        QVERIFY2(entry, qPrintable(capture.messages().join('\n')));
        QCOMPARE(entry->level, Logger::LEVEL_INFO);
        QCOMPARE(entry->file, QString("EventDevice"));
        QCOMPARE(entry->function, QString("readDevice"));
        QCOMPARE(capture.entries().size(), 1);
        QCOMPARE(device->getFd(), -1);

        // Closed for good: taking again hands on and says nothing.
        capture.clear();
        taken = device->takeRecords();
        QVERIFY(taken.records.empty());
        QCOMPARE(taken.readError, 0);
        device->reportReadError(taken.readError);
        QVERIFY(capture.entries().isEmpty());

        delete device;
        QVERIFY2(capture.entries().isEmpty(), qPrintable(capture.messages().join('\n')));
    }

    void destroyingAnOpenDeviceLogsTheClose()
    {
        // The counterpart of the silent destructor above.
        UinputDevice uinput(DeviceDescription::keyboard());
        QVERIFY2(uinput.isValid(), qPrintable(uinput.errorString()));
        auto* device = new EventDevice(uinput.devicePath());
        QVERIFY(device->getFd() != -1);
        LogCapture capture;
        delete device;
        const LogCapture::Entry* entry = capture.find("Closed device " + uinput.devicePath());
        QVERIFY2(entry, qPrintable(capture.messages().join('\n')));
        QCOMPARE(entry->function, QString("~EventDevice"));
    }
};

SELVANE_UINPUT_TEST_MAIN(EventDeviceTest)
#include "test_eventdevice.moc"
