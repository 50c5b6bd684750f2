#pragma once

#include "DeviceDescription.h"

#include <QString>
#include <QVector>

// One LED change the kernel forwarded to a uinput device.
struct UinputLedEvent
{
    int code;
    int value;

    bool operator==(const UinputLedEvent& other) const
    {
        return code == other.code && value == other.value;
    }
};

// Readable form of an LED event in QtTest failure messages.
char* toString(const UinputLedEvent& event);

// A kernel input device made from a DeviceDescription through /dev/uinput. It gets a
// real /dev/input/eventN node (devtmpfs must be mounted), reports the events
// the test types, receives the LED events that evdev clients write, and goes
// away on unplug() or destruction. The kernel's key repeat is off, so every
// event comes from the test. Needs write access to /dev/uinput.
class UinputDevice
{
public:
    explicit UinputDevice(const DeviceDescription& description);
    ~UinputDevice();

    UinputDevice(const UinputDevice&) = delete;
    UinputDevice& operator=(const UinputDevice&) = delete;

    // True when /dev/uinput can be opened for writing on this machine.
    static bool isAvailable();

    // Was created and its event node found (also after unplug()); otherwise
    // errorString() says why.
    bool isValid() const { return !nodePath.isEmpty(); }
    QString errorString() const { return error; }
    // "/dev/input/eventN"; empty when creation failed.
    QString devicePath() const { return nodePath; }

    // Reports one event record; the kernel stamps the time.
    bool send(int type, int code, int value);
    bool sync();
    // A key (or button) record followed by SYN_REPORT.
    bool press(int key);
    bool release(int key);

    // Writes one event to the event node as any evdev client would, e.g. to
    // set an LED the way a desktop does before the code under test opens it.
    bool writeToNode(int type, int code, int value);
    // The LED bits the kernel holds for the device, as any evdev client reads
    // them (EVIOCGLED on the event node): bit n is LED code n. -1 when the
    // node cannot be read.
    int ledBits() const;

    // Every LED event forwarded since the last call, oldest first. The kernel
    // forwards a written LED event during the writer's write(), so whatever a
    // call under test wrote is already here. The kernel keeps only the last 16
    // events for the device: take them after every few writes.
    QVector<UinputLedEvent> takeLedEvents();

    // Destroys the kernel device as an unplug would; evdev readers then get
    // ENODEV. Returns true once the event node is gone.
    bool unplug();

private:
    bool create(const DeviceDescription& description);
    bool findEventNode();
    void destroy();

    int fd = -1;
    QString nodePath;
    QString error;
};
