#pragma once

#include "seats/system/SystemSnapshot.h"
#include "seats/system/UdevHandles.h"

#include <QObject>
#include <QVector>

#include <memory>

class QSocketNotifier;

// udev's keyboards, mice and graphics cards as plain values.
//
// The snapshots enumerate udev's database each time they are asked: input
// "eventN" nodes with ID_INPUT_KEYBOARD or ID_INPUT_MOUSE, and drm "cardN"
// devices. Once started, a monitor of the input and drm subsystems' uevents
// (after udev's rules ran, so ID_SEAT is current) is watched by the event loop,
// and changed() comes once for each batch of uevents read together.
// What a device record means is decided in DeviceRecord, without libudev.
// Lives on one thread (the main thread in the program).
class UdevInputDevices : public QObject
{
    Q_OBJECT

public:
    explicit UdevInputDevices(QObject* parent = nullptr);
    ~UdevInputDevices() override;

    // False when libudev could not make its context; the snapshots are then
    // empty and start() fails.
    bool isValid() const { return context != nullptr; }

    // Starts watching the uevents; false (logged) when the monitor cannot be
    // made.
    bool start();

    QVector<InputDeviceInfo> snapshotInputDevices() const;
    QVector<GraphicsCardInfo> snapshotGraphicsCards() const;

Q_SIGNALS:
    void changed();

private:
    void readUevents();

    UdevContext context;
    UdevMonitor monitor;
    // Declared after the monitor, so that it goes before the monitor's socket.
    std::unique_ptr<QSocketNotifier> notifier;
};
