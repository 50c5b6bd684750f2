// UdevInputDevices on an emulated udev (umockdev): the keyboards, mice and
// graphics cards of a small room as its snapshots give them, and changed()
// on the uevents of its subsystems.
#include "UdevRoomScripts.h"
#include "UmockdevTestbed.h"

#include "seats/system/UdevInputDevices.h"

#include <QSignalSpy>
#include <QtTest>

// GLib's headers use "signals" as a member name; Qt's keyword macro must not rewrite it.
#pragma push_macro("signals")
#undef signals
#include <umockdev.h>
#pragma pop_macro("signals")

#include <memory>

namespace {
const QString controller = QStringLiteral("/sys/devices/pci0000:00/0000:00:05.0");
} // namespace

class UdevInputDevicesTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<UMockdevTestbed, decltype(&g_object_unref)> testbed{nullptr, g_object_unref};

    bool add(const QByteArray& script) { return addToTestbed(testbed.get(), script); }

private Q_SLOTS:
    void init()
    {
        testbed.reset(umockdev_testbed_new());
        QVERIFY(testbed);
    }

    void cleanup() { testbed.reset(); }

    void theSnapshotsHoldTheRoomsKeyboardsMiceAndCards()
    {
        QVERIFY(add(usbController()));
        QVERIFY(add(usbInputDevice(1, 4, 3, true, {}, QStringLiteral("QEMU USB Keyboard"))));
        QVERIFY(add(usbInputDevice(2, 5, 4, false, QStringLiteral("seat1"),
                                   QStringLiteral("QEMU USB Mouse"))));
        QVERIFY(add(card(0, 2, {})));
        QVERIFY(add(connector(0, 2)));
        QVERIFY(add(card(1, 4, QStringLiteral("seat1"))));

        UdevInputDevices udev;
        QVERIFY(udev.isValid());
        const QVector<InputDeviceInfo> devices = udev.snapshotInputDevices();
        QCOMPARE(devices.size(), 2);
        const InputDeviceInfo& keyboard = devices.at(0);
        QCOMPARE(keyboard.devnode, QStringLiteral("/dev/input/event3"));
        QCOMPARE(keyboard.syspath,
                 controller + QStringLiteral("/usb1/1-1/1-1:1.0/input/input4/event3"));
        QCOMPARE(keyboard.name, QStringLiteral("QEMU USB Keyboard"));
        QVERIFY(keyboard.keyboard);
        QVERIFY(!keyboard.mouse);
        QCOMPARE(keyboard.seat, QString());
        QCOMPARE(keyboard.forSeat, QStringLiteral("input-pci-0000_00_05_0-usb-0_1_1_0"));
        QCOMPARE(keyboard.port, controller + QStringLiteral("/usb1/1-1"));
        QCOMPARE(keyboard.portForSeat, QStringLiteral("usb-pci-0000_00_05_0-usb-0_1"));
        const InputDeviceInfo& mouse = devices.at(1);
        QVERIFY(mouse.mouse);
        QCOMPARE(mouse.seat, QStringLiteral("seat1"));
        QCOMPARE(mouse.port, controller + QStringLiteral("/usb1/1-2"));

        const QVector<GraphicsCardInfo> cards = udev.snapshotGraphicsCards();
        QCOMPARE(cards.size(), 2);
        QCOMPARE(cards.at(0).syspath,
                 QStringLiteral("/sys/devices/pci0000:00/0000:00:02.0/drm/card0"));
        QVERIFY(cards.at(0).masterOfSeat);
        QCOMPARE(cards.at(0).seat, QString());
        QCOMPARE(cards.at(0).forSeat, QStringLiteral("drm-pci-0000_00_02_0"));
        QCOMPARE(cards.at(1).seat, QStringLiteral("seat1"));
    }

    void aUeventOfTheSubsystemsIsAChange()
    {
        QVERIFY(add(usbController()));
        QVERIFY(add(usbInputDevice(1, 4, 3, true, {}, QStringLiteral("QEMU USB Keyboard"))));
        UdevInputDevices udev;
        QVERIFY(udev.start());
        QSignalSpy changed(&udev, &UdevInputDevices::changed);
        QVERIFY(add(usbInputDevice(2, 5, 4, true, {}, QStringLiteral("Another Keyboard"))));
        umockdev_testbed_uevent(
            testbed.get(),
            "/sys/devices/pci0000:00/0000:00:05.0/usb1/1-2/1-2:1.0/input/input5/event4", "add");
        QVERIFY(changed.wait(5000));
        QCOMPARE(udev.snapshotInputDevices().size(), 2);
    }
};

SELVANE_UMOCKDEV_TEST_MAIN(UdevInputDevicesTest)
#include "test_udevinputdevices.moc"
