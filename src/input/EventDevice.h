#pragma once

#include "input/DeviceNode.h"
#include "input/InputReader.h"
#include "keys/KeyRecord.h"
#include "keys/KeyState.h"

#include <QObject>
#include <QString>
#include <QVector>

#include <linux/input-event-codes.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

// One opened evdev input device (/dev/input/event*): it opens and checks the node, hands a
// descriptor of its own to the input reader (InputReader), which takes the kernel's key records
// off it on the reader's thread, and switches the keyboard's LEDs. What the records mean is the
// key engine's business (keys/KeyEngine); the device only hands them on, as values.
//
// A device that could not be opened or has no keys is closed (getFd() is -1) right after
// construction; so is one that was unplugged. Owners delete closed devices.
//
// Owned by one of the two device handlers; every method runs on the main thread.
class EventDevice : public QObject
{
    Q_OBJECT

public:
    // Highest key code tracked; the key state has one bit per code 0..lastKeyCode.
    static constexpr int lastKeyCode = KEY_MAX;
    // Highest LED code that can be switched.
    static constexpr int lastLedCode = LED_MAX - 1;

    explicit EventDevice(QString deviceFileName);
    ~EventDevice() override;

    // A number no other device of this process ever has, for the key engine.
    std::uint64_t getId() const { return id; }
    int getFd() const { return fd; }
    QString getDeviceFileName() const { return deviceFileName; }
    // The node of the open descriptor; none while closed.
    const std::optional<DeviceNode>& getNode() const { return node; }

    // What takeRecords() hands on: key records and frame ends, in the kernel's order, and the
    // error of a read that failed after them (0 for none; -1 for a short read).
    struct Records
    {
        std::vector<KeyRecord> records;
        int readError = 0;
    };
    // Hands on what the input reader has taken off the kernel (at most maxRecordsPerUpdate
    // records; the rest waits for the next call). Never waits.
    Records takeRecords();
    // Bytes the input reader has read off the device since it was opened.
    std::uint64_t getBytesRead() const;
    // Logs a read error of takeRecords(), once its records have been dealt with; a device that
    // has been unplugged is closed.
    void reportReadError(int error);
    // The device among `devices` that is `node`, which `path` names (as a name, before it is
    // opened, or as an open descriptor): one device under a second name is held once, so the
    // second name is logged as ignored. Null when `node` is none of them (or unknown).
    static const EventDevice* findOtherName(const QVector<EventDevice*>& devices,
                                            const QString& path,
                                            const std::optional<DeviceNode>& node);

    // The keys held when the device was opened, which count as down from the start.
    const KeyState& getKeysAtOpen() const { return keysAtOpen; }

    // Saves the LED state the kernel reports, for restoreLedState().
    void storeLedState();
    // Writes every saved LED state back to the device.
    void restoreLedState();
    void setLedOn(int ledCode, bool on);

    // Takes the device for this process alone (EVIOCGRAB), or lets it go: while it is taken the
    // kernel hands its records to no other reader, a session's X server included. The input
    // reader still reads them, on a descriptor of the same open file. False, logged, when the
    // kernel refuses (another program holds the device); a closed device is never taken.
    bool setGrabbed(bool grabbed);
    bool isGrabbed() const { return grabbed; }
    // Whether the kernel reports a key or button of the device as down now (EVIOCGKEY); false
    // for a closed device.
    bool isAnyKeyDown() const;

    static void deleteClosedEventDevices(QVector<EventDevice*>& devices);

Q_SIGNALS:
    // takeRecords() has work: the reader took new records or met a read error, or
    // takeRecords() left records for its next call.
    void recordsWaiting();

public:
    // Records handed on per takeRecords(), so that a flooding device cannot hold an update.
    static constexpr std::size_t maxRecordsPerUpdate = 2048;

private:
    void readerHasRecords(InputReader::DeviceId readerDevice);
    bool writeLedEvent(int ledCode, bool on);
    void closeDescriptor();

    int fd = -1;
    QString deviceFileName;
    std::optional<DeviceNode> node;
    // The node that the device's name showed once it was open; none while closed. The same
    // as `node` for a device node; an emulated node (umockdev) shows the emulated device's
    // number for its name, while its descriptor is a pseudo terminal.
    std::optional<DeviceNode> nameNode;
    std::uint64_t id = 0;
    // The device's number with the input reader; 0 while the reader holds no descriptor of it.
    InputReader::DeviceId readerId = 0;
    KeyState keysAtOpen;
    bool grabbed = false;
    std::array<unsigned char, LED_MAX / 8 + 1> ledState{};
};
