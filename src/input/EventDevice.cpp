#include "input/EventDevice.h"

#include "common/Logger.h"

#include <QFile>

#include <linux/input.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {
constexpr char logSource[] = "EventDevice";

// At most this many bytes are taken per read; more waits for the next call. The buffer holds
// whole kernel records only (42 of 24 bytes on 64-bit), so a read never splits a record.
constexpr std::size_t readBufferBytes = 1024;
using ReadBuffer = std::array<input_event, readBufferBytes / sizeof(input_event)>;

constexpr int keyPress = 1;
constexpr int keyRelease = 0;

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
} // namespace

EventDevice::EventDevice(QString path)
{
    // Read-write because LED events are written to the device. The descriptor must not become
    // a controlling terminal or leak into the commands the daemon runs.
    fd = open(QFile::encodeName(path).constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd == -1) {
        SELVANE_LOG(LEVEL_WARNING, "Could not open " + path + " for reading.");
        return;
    }
    SELVANE_LOG(LEVEL_INFO, "Opened " + path + " for reading ");

    char name[256] = {};
    if (ioctl(fd, EVIOCGNAME(sizeof name), name) >= 0) {
        const QString deviceName = QString::fromLocal8Bit(name, qstrnlen(name, sizeof name));
        SELVANE_LOG(LEVEL_INFO, "Name of device at " + path + " is " + deviceName + ".");
    }

    std::array<unsigned char, EV_MAX / 8 + 1> eventTypes{};
    if (ioctl(fd, EVIOCGBIT(0, eventTypes.size()), eventTypes.data()) == -1) {
        SELVANE_LOG(LEVEL_WARNING, "Could not get event types for device " + path + ".");
        closeDescriptor();
        return;
    }
    // Keyboards and mice alike report EV_KEY (keys or buttons); nothing else is usable.
    if (!testBit(eventTypes, EV_KEY)) {
        SELVANE_LOG(LEVEL_WARNING,
                    "Device at " + path + " does not have keys.  It will not be used.");
        closeDescriptor();
        return;
    }

    deviceFileName = path;
    // Keys already held now count as down, in both states, so none of them looks freshly
    // pressed.
    ioctl(fd, EVIOCGKEY(keyState.size()), keyState.data());
    previousKeyState = keyState;
    storeLedState();
}

EventDevice::~EventDevice()
{
    if (fd != -1) {
        closeDescriptor();
        SELVANE_LOG(LEVEL_INFO, "Closed device " + deviceFileName);
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
        return;
    }
    if (ready == 0) {
        return;
    }

    ReadBuffer events;
    const ssize_t bytes = read(fd, events.data(), sizeof events);
    if (bytes == -1) {
        const int error = errno;
        if (error == ENODEV) {
            SELVANE_LOG(LEVEL_INFO,
                        "Device " + deviceFileName + " has been removed.  Closing device.");
            closeDescriptor();
        } else {
            SELVANE_LOG(LEVEL_ERROR, "read error: " + errorText(error));
        }
        return;
    }
    if (static_cast<std::size_t>(bytes) < sizeof(input_event)) {
        SELVANE_LOG(LEVEL_ERROR, "Could not read a full event");
        return;
    }

    const std::size_t count = static_cast<std::size_t>(bytes) / sizeof(input_event);
    for (std::size_t i = 0; i < count; ++i) {
        const input_event& event = events[i];
        // Auto-repeat (value 2) and every other event type leave the key state alone.
        if (event.type != EV_KEY || (event.value != keyPress && event.value != keyRelease)) {
            continue;
        }
        if (event.code > lastKeyCode) {
            SELVANE_LOG(LEVEL_BUG, "key is invalid: %d", int(event.code));
            continue;
        }
        setBit(keyState, event.code, event.value == keyPress);
        emit keymapChanged(this);
        updateKeymaps();
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
        SELVANE_LOG(LEVEL_WARNING,
                    "ioctl() error on device " + deviceFileName + " : " + errorText(errno));
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
            SELVANE_LOG(LEVEL_WARNING,
                        "write() error on device " + deviceFileName + " : " + errorText(errno));
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
        SELVANE_LOG(LEVEL_INFO, "Device " + deviceFileName + " has been removed.  Closing device.");
        closeDescriptor();
    } else {
        SELVANE_LOG(LEVEL_WARNING,
                    "write() error on device " + deviceFileName + " : " + errorText(error));
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
    close(fd);
    fd = -1;
}
