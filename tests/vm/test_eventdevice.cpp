// EventDevice on kernel input devices: the key state at open time and the
// unplug, which emulated nodes cannot show the way the kernel does.
#include "LogCapture.h"
#include "UinputTestMain.h"

#include "input/EventDevice.h"

#include <QSignalSpy>

#include <linux/input-event-codes.h>

using Orvanta::Logger;

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
        QVERIFY(device.isKeyPressed(key));
        QVERIFY(device.isKeyPressed());
        QVERIFY(!device.isKeyPressedOnce(key));

        // The press happened before the open, so nothing of it is queued.
        QSignalSpy changes(&device, &EventDevice::keymapChanged);
        device.readDevice();
        QCOMPARE(changes.count(), 0);

        bool downDuringRelease = true;
        connect(&device, &EventDevice::keymapChanged, this, [&](const EventDevice* changed) {
            downDuringRelease = changed->isKeyPressed(key) || changed->isKeyPressedOnce(key);
        });
        QVERIFY(uinput.release(key));
        device.readDevice();
        QCOMPARE(changes.count(), 1);
        QVERIFY(!downDuringRelease);
        QVERIFY(!device.isKeyPressed());
    }

    void heldKeyRepeatsAreIgnored()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        EventDevice device(keyboard.devicePath());
        QVERIFY(device.getFd() != -1);
        QSignalSpy changes(&device, &EventDevice::keymapChanged);

        QVERIFY(keyboard.press(KEY_B));
        for (int repeat = 0; repeat < 3; ++repeat) {
            QVERIFY(keyboard.send(EV_KEY, KEY_B, 2));
            QVERIFY(keyboard.sync());
        }
        QVERIFY(keyboard.release(KEY_B));
        device.readDevice();
        // The press and the release; the repeats in between are not reported.
        QCOMPARE(changes.count(), 2);
        QVERIFY(!device.isKeyPressed(KEY_B));
    }

    void unplugClosesTheDeviceAndItsDestructorStaysSilent()
    {
        UinputDevice uinput(DeviceDescription::keyboard());
        QVERIFY2(uinput.isValid(), qPrintable(uinput.errorString()));
        const QString path = uinput.devicePath();
        auto* device = new EventDevice(path);
        QVERIFY(device->getFd() != -1);
        QSignalSpy changes(device, &EventDevice::keymapChanged);

        // A key still down at the unplug: the kernel queues a release for it
        // on the way out, but a read answers ENODEV before handing it over.
        QVERIFY(uinput.press(KEY_A));
        device->readDevice();
        QCOMPARE(changes.count(), 1);

        LogCapture capture;
        QVERIFY2(uinput.unplug(), qPrintable(uinput.errorString()));
        device->readDevice();
        const QString removed = "Device " + path + " has been removed.  Closing device.";
        const LogCapture::Entry* entry = capture.find(removed);
        QVERIFY2(entry, qPrintable(capture.messages().join('\n')));
        QCOMPARE(entry->level, Logger::LEVEL_INFO);
        QCOMPARE(entry->file, QString("EventDevice"));
        QCOMPARE(entry->function, QString("readDevice"));
        QCOMPARE(device->getFd(), -1);
        QCOMPARE(changes.count(), 1);

        // Closed for good: reading again does and says nothing.
        capture.clear();
        device->readDevice();
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
