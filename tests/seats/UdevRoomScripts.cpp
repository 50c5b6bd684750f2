#include "UdevRoomScripts.h"

#include <QtGlobal>

// GLib's headers use "signals" as a member name; Qt's keyword macro must not rewrite it.
#pragma push_macro("signals")
#undef signals
#include <umockdev.h>
#pragma pop_macro("signals")

QByteArray usbController()
{
    return QByteArrayLiteral("P: /devices/pci0000:00/0000:00:05.0/usb1\nE: SUBSYSTEM=usb\n"
                             "E: DEVTYPE=usb_device\nA: idVendor=1d6b\n\n"
                             "P: /devices/pci0000:00/0000:00:05.0\nE: SUBSYSTEM=pci\n\n");
}

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

bool addToTestbed(UMockdevTestbed* testbed, const QByteArray& script)
{
    GError* error = nullptr;
    const bool added = umockdev_testbed_add_from_string(testbed, script.constData(), &error);
    if (!added) {
        qWarning("umockdev: %s", error->message);
        g_error_free(error);
    }
    return added;
}
