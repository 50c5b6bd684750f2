#pragma once

#include <QString>
#include <QVector>

// One emulated input device, declared as data. The umockdev fixture turns it
// into an evdev node under a testbed, the uinput fixture into a kernel device.
struct DeviceDescription
{
    QString name;
    QVector<int> eventTypes;   // EV_* types the device reports
    QVector<int> keys;         // KEY_* / BTN_* codes it can report
    QVector<int> relativeAxes; // REL_* codes
    QVector<int> leds;         // LED_* codes

    // A full keyboard with Num, Caps and Scroll Lock LEDs.
    static DeviceDescription keyboard(const QString& name = QStringLiteral("Emulated Keyboard"));
    // A three-button wheel mouse with the side and extra buttons.
    static DeviceDescription mouse(const QString& name = QStringLiteral("Emulated Mouse"));
    // Relative axes only, no EV_KEY at all (an unusable device for the daemon).
    static DeviceDescription relativeOnly(const QString& name = QStringLiteral("Emulated Axes"));
};
