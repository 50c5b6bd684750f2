#pragma once

#include "input/DeviceNode.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QVector>

#include <linux/input-event-codes.h>

#include <array>
#include <cstdint>
#include <deque>
#include <optional>

class QSocketNotifier;

// One opened evdev input device (/dev/input/event*). It tracks which keys and buttons are down,
// emits keymapChanged() for every key press and release, carries the named variables that
// describe it to commands run on its behalf, and switches its keyboard LEDs.
//
// The kernel keeps only a short buffer of records per reader and throws it all away when it
// overflows. So the device takes the kernel's records off its descriptor as soon as they arrive
// (a socket notifier, and takePendingRecords() while the daemon waits for a command) into a queue
// of its own and says so with recordsWaiting(); readDevice(), called by the daemon's updates,
// processes that queue. Only what the key state needs is queued: key records and the frame ends
// between them, so a mouse that only moves queues nothing and asks for no update.
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

    int getFd() const { return fd; }
    QString getDeviceFileName() const { return deviceFileName; }
    // The node of the open descriptor; none while closed.
    const std::optional<DeviceNode>& getNode() const { return node; }

    // Takes what the kernel has queued, then processes the device's queue (at most
    // maxRecordsPerUpdate records; the rest waits for the next call). Never waits.
    void readDevice();
    // Moves records from the kernel into the device's queue without processing them; at most
    // one read per call. Does nothing while the queue is full or a read error is pending.
    void takePendingRecords();
    // Whether takePendingRecords() would read: the device is open, its queue has room and no
    // read error waits to be reported.
    bool isTakingRecords() const;
    // Every device that is open now, in the order they were opened.
    static QVector<EventDevice*> openDevices();
    // The device among `devices` that is `node`, which `path` names (as a name, before it is
    // opened, or as an open descriptor): one device under a second name is held once, so the
    // second name is logged as ignored. Null when `node` is none of them (or unknown).
    static const EventDevice* findOtherName(const QVector<EventDevice*>& devices,
                                            const QString& path,
                                            const std::optional<DeviceNode>& node);

    bool isKeyPressed(int key) const;
    // Whether any key 0..lastKeyCode-1 is down.
    bool isKeyPressed() const;
    // Whether `key` went down in the key event being reported now.
    bool isKeyPressedOnce(int key) const;
    // Whether the key event being reported now was made up by the kernel rather than typed:
    // the kernel releases every held key in one frame of its own when the device goes away
    // (and when it is reset or inhibited), marking that frame's SYN_REPORT with the value 1.
    bool isReleasedByKernel() const { return frameFromKernel; }
    void updateKeymaps();

    QHash<QString, QString> getDeviceVariables() const { return deviceVariables; }
    void setDeviceVariable(QString name, QString value);

    // Saves the LED state the kernel reports, for restoreLedState().
    void storeLedState();
    // Writes every saved LED state back to the device.
    void restoreLedState();
    void setLedOn(int ledCode, bool on);

    static void readEvents(QVector<EventDevice*>& devices);
    static void deleteClosedEventDevices(QVector<EventDevice*>& devices);

Q_SIGNALS:
    void keymapChanged(const EventDevice* device);
    // readDevice() has work: takePendingRecords() queued new records or met a read error, or
    // readDevice() left records for its next call.
    void recordsWaiting();

public:
    // Bounds that keep a flooding device from holding the daemon: records queued before the
    // device stops taking more (the kernel then drops, and the device resynchronises), and
    // records processed per readDevice().
    static constexpr std::size_t maxQueuedRecords = 4096;
    static constexpr std::size_t maxRecordsPerUpdate = 2048;

private:
    using KeyBits = std::array<unsigned char, KEY_MAX / 8 + 1>;
    using LedBits = std::array<unsigned char, LED_MAX / 8 + 1>;

    // A kernel record without its time stamp, which nothing here uses.
    struct QueuedRecord
    {
        std::uint16_t type;
        std::uint16_t code;
        std::int32_t value;
    };

    void queueRecord(const QueuedRecord& record);
    void resynchroniseKeys();
    bool frameEndsWithKernelMark() const;
    void updateNotifier();
    bool writeLedEvent(int ledCode, bool on);
    void closeDescriptor();

    int fd = -1;
    QString deviceFileName;
    std::optional<DeviceNode> node;
    // The node that the device's name showed once it was open; none while closed. The same
    // as `node` for a device node; an emulated node (umockdev) shows the emulated device's
    // number for its name, while its descriptor is a pseudo terminal.
    std::optional<DeviceNode> nameNode;
    KeyBits keyState{};
    KeyBits previousKeyState{};
    QHash<QString, QString> deviceVariables;
    LedBits ledState{};

    QSocketNotifier* notifier = nullptr;
    std::deque<QueuedRecord> queue;
    // The key state once everything queued is processed; a resynchronisation queues the
    // difference between this and the kernel's state.
    KeyBits queuedKeyState{};
    bool lastQueuedEndsFrame = true;
    bool discardingUntilReport = false;
    // errno of a failed read, or -1 for a short read; reported on the next readDevice().
    int pendingReadError = 0;
    // The kernel mark of the frame being processed, once looked up.
    bool frameMarkKnown = false;
    bool frameFromKernel = false;
};
