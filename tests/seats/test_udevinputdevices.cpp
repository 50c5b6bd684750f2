// UdevInputDevices on an emulated udev (umockdev): the keyboards, mice and
// graphics cards of a small room as its snapshots give them, and changed()
// on the uevents of its subsystems.
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

// The USB controller and its root hub.
QByteArray usbController()
{
    return QByteArrayLiteral("P: /devices/pci0000:00/0000:00:05.0/usb1\nE: SUBSYSTEM=usb\n"
                             "E: DEVTYPE=usb_device\nA: idVendor=1d6b\n\n"
                             "P: /devices/pci0000:00/0000:00:05.0\nE: SUBSYSTEM=pci\n\n");
}

// A USB keyboard or mouse in port `port` of the controller's root hub, with
// its USB device, interface, input device and event node, as umockdev's
// script format describes them (each device before its parent).
QByteArray usbInputDevice(int port, int input, int event, bool keyboard, const QString& seat,
                          const QString& name)
{
    const QString usb = QStringLiteral("/devices/pci0000:00/0000:00:05.0/usb1/1-%1").arg(port);
    const QString interface = usb + QStringLiteral("/1-%1:1.0").arg(port);
    const QString inputPath = interface + QStringLiteral("/input/input%1").arg(input);
    const QString tag = QStringLiteral("pci-0000_00_05_0-usb-0_%1").arg(port);
    QString text;
    text +=
        QStringLiteral("P: %1/event%2\nN: input/event%2\nE: DEVNAME=/dev/input/event%2\n"
                       "E: SUBSYSTEM=input\nE: ID_INPUT=1\nE: %3=1\n")
            .arg(inputPath)
            .arg(event)
            .arg(keyboard ? QStringLiteral("ID_INPUT_KEYBOARD") : QStringLiteral("ID_INPUT_MOUSE"));
    text += QStringLiteral("E: ID_FOR_SEAT=input-%1_1_0\n").arg(tag);
    if (!seat.isEmpty()) {
        text += QStringLiteral("E: ID_SEAT=%1\n").arg(seat);
    }
    text += QStringLiteral("\nP: %1\nE: SUBSYSTEM=input\nE: NAME=\"%2\"\nA: name=%2\\n\n\n")
                .arg(inputPath, name);
    text += QStringLiteral("P: %1\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\n"
                           "A: bInterfaceClass=03\n\n")
                .arg(interface);
    text += QStringLiteral("P: %1\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: ID_FOR_SEAT=usb-%2\n"
                           "E: TAGS=:seat:\nA: idVendor=0627\n\n")
                .arg(usb, tag);
    return text.toUtf8();
}

QByteArray card(int number, int slot, const QString& seat)
{
    QString text = QStringLiteral("P: /devices/pci0000:00/0000:00:0%2.0/drm/card%1\n"
                                  "N: dri/card%1\nE: DEVNAME=/dev/dri/card%1\nE: SUBSYSTEM=drm\n"
                                  "E: DEVTYPE=drm_minor\nE: TAGS=:seat:master-of-seat:\n"
                                  "E: ID_FOR_SEAT=drm-pci-0000_00_0%2_0\n")
                       .arg(number)
                       .arg(slot);
    if (!seat.isEmpty()) {
        text += QStringLiteral("E: ID_SEAT=%1\n").arg(seat);
    }
    text +=
        QStringLiteral("\nP: /devices/pci0000:00/0000:00:0%1.0\nE: SUBSYSTEM=pci\n\n").arg(slot);
    return text.toUtf8();
}

QByteArray connector(int number, int slot)
{
    return QStringLiteral("P: /devices/pci0000:00/0000:00:0%2.0/drm/card%1/card%1-VGA-1\n"
                          "E: SUBSYSTEM=drm\nE: DEVTYPE=drm_connector\n\n")
        .arg(number)
        .arg(slot)
        .toUtf8();
}
} // namespace

class UdevInputDevicesTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<UMockdevTestbed, decltype(&g_object_unref)> testbed{nullptr, g_object_unref};

    bool add(const QByteArray& script)
    {
        GError* error = nullptr;
        const bool added =
            umockdev_testbed_add_from_string(testbed.get(), script.constData(), &error);
        if (!added) {
            qWarning("umockdev: %s", error->message);
            g_error_free(error);
        }
        return added;
    }

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
