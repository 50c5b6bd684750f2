#include "input/EventDevice.h"

#include "common/Logger.h"
#include "common/Util.h"

#include <QFile>
#include <QSocketNotifier>

#include <linux/input.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <utility>

namespace {
constexpr char logSource[] = "EventDevice";

// Records taken per read. The kernel keeps 64 to 128 records per reader, so one read empties its
// buffer; more waits for the next wakeup.
constexpr std::size_t recordsPerRead = 128;
using ReadBuffer = std::array<input_event, recordsPerRead>;

constexpr int keyPress = 1;
constexpr int keyRelease = 0;
// A SYN_REPORT with this value ends a frame the kernel made up itself.
constexpr int kernelFrameMark = 1;
// Major number of the kernel's input device nodes (/dev/input/*).
constexpr unsigned inputMajor = 13;
// A short read has no errno; this stands for it among the pending read errors.
constexpr int shortRead = -1;

// The open devices, for waits that keep taking their records. One thread uses them all.
QVector<EventDevice*> openDeviceList;

template <std::size_t N> bool testBit(const std::array<unsigned char, N>& bits, int index)
{
    return (bits[index / 8] >> (index % 8)) & 1;
}

template <std::size_t N> void setBit(std::array<unsigned char, N>& bits, int index, bool value)
{
    const auto mask = static_cast<unsigned char>(1u << (index % 8));
    bits[index / 8] = value ? (bits[index / 8] | mask) : (bits[index / 8] & ~mask);
}

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Opening some character devices has side effects (a watchdog starts counting, a modem line is
// raised), so of character devices only input devices are ever opened. A node without a device
// number (0:0, which no driver has; an emulated node may look so) reaches no driver at all.
bool isForeignCharacterDevice(const QByteArray& path)
{
    struct stat status
    {
    };
    return stat(path.constData(), &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev != 0 &&
           major(status.st_rdev) != inputMajor;
}

int openDevice(const QString& path)
{
    const QByteArray encodedPath = QFile::encodeName(path);
    if (isForeignCharacterDevice(encodedPath)) {
        return -1;
    }
    // Read-write because LED events are written to the device. Non-blocking so that neither the
    // open nor a read can ever hold the daemon. The descriptor must not become a controlling
    // terminal or leak into the commands the daemon runs.
    return open(encodedPath.constData(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
}
} // namespace

EventDevice::EventDevice(QString path)
{
    // The path comes from a caller on the bus, the name from the device.
    const QString shownPath = Orvanta::escapeForLog(path);
    fd = openDevice(path);
    if (fd == -1) {
        SELVANE_LOG(LEVEL_WARNING, "Could not open " + shownPath + " for reading.");
        return;
    }
    SELVANE_LOG(LEVEL_INFO, "Opened " + shownPath + " for reading ");

    char name[256] = {};
    if (ioctl(fd, EVIOCGNAME(sizeof name), name) >= 0) {
        // Byte for byte: the log writes Latin-1, so whatever bytes the kernel gave come out
        // unchanged.
        const QString deviceName = QString::fromLatin1(name, qstrnlen(name, sizeof name));
        SELVANE_LOG(LEVEL_INFO, "Name of device at " + shownPath + " is " +
                                    Orvanta::escapeForLog(deviceName) + ".");
    }

    std::array<unsigned char, EV_MAX / 8 + 1> eventTypes{};
    if (ioctl(fd, EVIOCGBIT(0, eventTypes.size()), eventTypes.data()) == -1) {
        SELVANE_LOG(LEVEL_WARNING, "Could not get event types for device " + shownPath + ".");
        closeDescriptor();
        return;
    }
    // Keyboards and mice alike report EV_KEY (keys or buttons); nothing else is usable.
    if (!testBit(eventTypes, EV_KEY)) {
        SELVANE_LOG(LEVEL_WARNING,
                    "Device at " + shownPath + " does not have keys.  It will not be used.");
        closeDescriptor();
        return;
    }

    deviceFileName = path;
    node = DeviceNode::ofDescriptor(fd);
    nameNode = DeviceNode::ofPath(path);
    // Keys already held now count as down, in both states, so none of them looks freshly
    // pressed.
    ioctl(fd, EVIOCGKEY(keyState.size()), keyState.data());
    previousKeyState = keyState;
    queuedKeyState = keyState;
    storeLedState();

    openDeviceList.append(this);
    notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &EventDevice::takePendingRecords);
}

EventDevice::~EventDevice()
{
    if (fd != -1) {
        closeDescriptor();
        SELVANE_LOG(LEVEL_INFO, "Closed device " + Orvanta::escapeForLog(deviceFileName));
    }
}

void EventDevice::readDevice()
{
    if (fd == -1) {
        return;
    }
    // A zero timeout: one thread polls every device in turn and must never block. Errors and
    // hang-ups count as readable so that read() reports them.
    pollfd pending{fd, POLLIN, 0};
    const int ready = poll(&pending, 1, 0);
    if (ready == -1) {
        SELVANE_LOG(LEVEL_WARNING, "Error in select: " + errorText(errno));
    } else if (ready > 0) {
        takePendingRecords();
    }
    // A bounded share of the queue per call, so that a flooding device cannot hold an update.
    for (std::size_t processed = 0; processed < maxRecordsPerUpdate && !queue.empty();
         ++processed) {
        if (!frameMarkKnown) {
            frameFromKernel = frameEndsWithKernelMark();
            frameMarkKnown = true;
        }
        const QueuedRecord record = queue.front();
        queue.pop_front();
        if (record.type == EV_SYN) {
            frameMarkKnown = false;
            continue;
        }
        if (record.code > lastKeyCode) {
            SELVANE_LOG(LEVEL_BUG, "key is invalid: %d", int(record.code));
            continue;
        }
        setBit(keyState, record.code, record.value == keyPress);
        emit keymapChanged(this);
        updateKeymaps();
    }
    frameFromKernel = false;
    if (!queue.empty()) {
        Q_EMIT recordsWaiting();
    }
    // A read error comes after every record taken before it.
    const int error = queue.empty() ? std::exchange(pendingReadError, 0) : 0;
    if (error == shortRead) {
        SELVANE_LOG(LEVEL_ERROR, "Could not read a full event");
    } else if (error == ENODEV) {
        SELVANE_LOG(LEVEL_INFO, "Device " + Orvanta::escapeForLog(deviceFileName) +
                                    " has been removed.  Closing device.");
        closeDescriptor();
    } else if (error != 0) {
        SELVANE_LOG(LEVEL_ERROR, "read error: " + errorText(error));
    }
    updateNotifier();
}

void EventDevice::takePendingRecords()
{
    if (!isTakingRecords()) {
        updateNotifier();
        return;
    }
    const std::size_t queuedBefore = queue.size();
    ReadBuffer events;
    const ssize_t bytes = read(fd, events.data(), sizeof events);
    if (bytes == -1) {
        if (errno != EAGAIN && errno != EINTR) {
            pendingReadError = errno;
        }
    } else if (static_cast<std::size_t>(bytes) < sizeof(input_event)) {
        pendingReadError = shortRead;
    } else {
        const std::size_t count = static_cast<std::size_t>(bytes) / sizeof(input_event);
        for (std::size_t i = 0; i < count; ++i) {
            queueRecord({events[i].type, events[i].code, events[i].value});
        }
    }
    updateNotifier();
    if (queue.size() > queuedBefore || pendingReadError != 0) {
        Q_EMIT recordsWaiting();
    }
}

bool EventDevice::isTakingRecords() const
{
    return fd != -1 && pendingReadError == 0 && queue.size() < maxQueuedRecords;
}

QVector<EventDevice*> EventDevice::openDevices()
{
    return openDeviceList;
}

const EventDevice* EventDevice::findOtherName(const QVector<EventDevice*>& devices,
                                              const QString& path,
                                              const std::optional<DeviceNode>& node)
{
    if (!node) {
        return nullptr;
    }
    for (const EventDevice* device : devices) {
        if (device->node == node || device->nameNode == node) {
            SELVANE_LOG(LEVEL_WARNING, "Device " + Orvanta::escapeForLog(path) +
                                           " is the same device as " +
                                           Orvanta::escapeForLog(device->deviceFileName) +
                                           ", which is already open.  Ignoring it.");
            return device;
        }
    }
    return nullptr;
}

void EventDevice::queueRecord(const QueuedRecord& record)
{
    // After SYN_DROPPED the kernel's records up to the next SYN_REPORT belong to a frame that
    // lost part of itself; the key state is read afresh instead.
    if (discardingUntilReport) {
        if (record.type == EV_SYN && record.code == SYN_REPORT) {
            discardingUntilReport = false;
            resynchroniseKeys();
        }
        return;
    }
    if (record.type == EV_SYN) {
        if (record.code == SYN_DROPPED) {
            discardingUntilReport = true;
        } else if (record.code == SYN_REPORT && !lastQueuedEndsFrame) {
            // Frames without key records (a mouse moving) leave nothing to process.
            queue.push_back(record);
            lastQueuedEndsFrame = true;
        }
        return;
    }
    // Auto-repeat (value 2) and every other event type leave the key state alone.
    if (record.type != EV_KEY || (record.value != keyPress && record.value != keyRelease)) {
        return;
    }
    if (record.code <= lastKeyCode) {
        setBit(queuedKeyState, record.code, record.value == keyPress);
    }
    queue.push_back(record);
    lastQueuedEndsFrame = false;
}

// Queues a frame that turns the queued key state into the kernel's: a press for every key that
// went down meanwhile, a release for every key that came up.
void EventDevice::resynchroniseKeys()
{
    KeyBits kernelKeys{};
    if (ioctl(fd, EVIOCGKEY(kernelKeys.size()), kernelKeys.data()) == -1) {
        // The queued state stays; the device's next key records correct it key by key.
        return;
    }
    for (int key = 0; key <= lastKeyCode; ++key) {
        const bool down = testBit(kernelKeys, key);
        if (down == testBit(queuedKeyState, key)) {
            continue;
        }
        setBit(queuedKeyState, key, down);
        queue.push_back({EV_KEY, static_cast<std::uint16_t>(key), down ? keyPress : keyRelease});
        lastQueuedEndsFrame = false;
    }
    if (!lastQueuedEndsFrame) {
        queue.push_back({EV_SYN, SYN_REPORT, 0});
        lastQueuedEndsFrame = true;
    }
}

// Whether the frame that starts at the queue's head ends with the kernel's mark. Only frame ends
// are queued of the EV_SYN records.
bool EventDevice::frameEndsWithKernelMark() const
{
    for (const QueuedRecord& record : queue) {
        if (record.type == EV_SYN) {
            return record.value == kernelFrameMark;
        }
    }
    return false;
}

void EventDevice::updateNotifier()
{
    if (notifier) {
        notifier->setEnabled(isTakingRecords());
    }
}

bool EventDevice::isKeyPressed(int key) const
{
    if (key < 0 || key > lastKeyCode) {
        SELVANE_LOG(LEVEL_BUG, "key is invalid: %d", key);
        return false;
    }
    return testBit(keyState, key);
}

bool EventDevice::isKeyPressed() const
{
    // Code 767 is left out of the scan: holding only that key counts as no key held.
    for (int key = 0; key < lastKeyCode; ++key) {
        if (testBit(keyState, key)) {
            return true;
        }
    }
    return false;
}

bool EventDevice::isKeyPressedOnce(int key) const
{
    if (key < 0 || key > lastKeyCode) {
        SELVANE_LOG(LEVEL_BUG, "key is invalid: %d", key);
        return false;
    }
    return testBit(keyState, key) && !testBit(previousKeyState, key);
}

void EventDevice::updateKeymaps()
{
    previousKeyState = keyState;
}

void EventDevice::setDeviceVariable(QString name, QString value)
{
    deviceVariables.insert(name, value);
}

void EventDevice::storeLedState()
{
    if (fd == -1) {
        return;
    }
    LedBits bits{};
    if (ioctl(fd, EVIOCGLED(bits.size()), bits.data()) == -1) {
        SELVANE_LOG(LEVEL_WARNING, "ioctl() error on device " +
                                       Orvanta::escapeForLog(deviceFileName) + " : " +
                                       errorText(errno));
        return;
    }
    ledState = bits;
}

void EventDevice::restoreLedState()
{
    if (fd == -1) {
        return;
    }
    for (int led = 0; led <= lastLedCode; ++led) {
        if (!writeLedEvent(led, testBit(ledState, led))) {
            SELVANE_LOG(LEVEL_WARNING, "write() error on device " +
                                           Orvanta::escapeForLog(deviceFileName) + " : " +
                                           errorText(errno));
        }
    }
}

void EventDevice::setLedOn(int ledCode, bool on)
{
    if (fd == -1) {
        return;
    }
    if (ledCode < 0 || ledCode > lastLedCode) {
        SELVANE_LOG(LEVEL_BUG, "ledCode is invalid: %d", ledCode);
        return;
    }
    if (writeLedEvent(ledCode, on)) {
        return;
    }
    const int error = errno;
    if (error == ENODEV) {
        SELVANE_LOG(LEVEL_INFO, "Device " + Orvanta::escapeForLog(deviceFileName) +
                                    " has been removed.  Closing device.");
        closeDescriptor();
    } else {
        SELVANE_LOG(LEVEL_WARNING, "write() error on device " +
                                       Orvanta::escapeForLog(deviceFileName) + " : " +
                                       errorText(error));
    }
}

void EventDevice::readEvents(QVector<EventDevice*>& devices)
{
    for (EventDevice* device : std::as_const(devices)) {
        if (!device) {
            SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
            continue;
        }
        device->readDevice();
    }
}

void EventDevice::deleteClosedEventDevices(QVector<EventDevice*>& devices)
{
    for (auto it = devices.begin(); it != devices.end();) {
        if (*it && (*it)->getFd() != -1) {
            ++it;
            continue;
        }
        delete *it;
        it = devices.erase(it);
    }
}

// One EV_LED record with a zero time stamp and no EV_SYN after it. On failure errno tells why.
bool EventDevice::writeLedEvent(int ledCode, bool on)
{
    input_event event{};
    event.type = EV_LED;
    event.code = static_cast<__u16>(ledCode);
    event.value = on ? 1 : 0;
    const ssize_t written = write(fd, &event, sizeof event);
    if (written == static_cast<ssize_t>(sizeof event)) {
        return true;
    }
    if (written >= 0) {
        errno = EIO;
    }
    return false;
}

void EventDevice::closeDescriptor()
{
    // The notifier goes before its descriptor.
    delete notifier;
    notifier = nullptr;
    openDeviceList.removeOne(this);
    close(fd);
    fd = -1;
    node.reset();
    nameNode.reset();
}
