#include "input/EventDevice.h"

#include "common/Logger.h"
#include "common/Util.h"

#include <QFile>

#include <linux/input.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace {
constexpr char logSource[] = "EventDevice";

// Major number of the kernel's input device nodes (/dev/input/*).
constexpr unsigned inputMajor = 13;
// The last number given to a device.
std::uint64_t lastDeviceId = 0;

template <std::size_t N> bool testBit(const std::array<unsigned char, N>& bits, int index)
{
    return (bits[index / 8] >> (index % 8)) & 1;
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
    // Keys already held now count as down, so none of them looks freshly pressed.
    std::array<unsigned char, KEY_MAX / 8 + 1> keys{};
    ioctl(fd, EVIOCGKEY(keys.size()), keys.data());
    keysAtOpen = KeyState::fromKernelBits(keys.data(), keys.size());
    id = ++lastDeviceId;
    storeLedState();

    // The reader reads a descriptor of its own; this one stays for the LEDs and the device's
    // checks. Both are the same open file, so neither reads records the other misses.
    Orvanta::OwnedFd forReader(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!forReader.isValid()) {
        SELVANE_LOG(LEVEL_WARNING, "Could not open " + shownPath + " for reading.");
        closeDescriptor();
        return;
    }
    InputReader& reader = InputReader::shared();
    connect(&reader, &InputReader::recordsWaiting, this, &EventDevice::readerHasRecords);
    readerId = reader.add(std::move(forReader), keys.data(), keys.size());
}

EventDevice::~EventDevice()
{
    if (fd != -1) {
        // Let go in so many words, rather than when the reader's descriptor closes too.
        setGrabbed(false);
        closeDescriptor();
        SELVANE_LOG(LEVEL_INFO, "Closed device " + Orvanta::escapeForLog(deviceFileName));
    }
}

EventDevice::Records EventDevice::takeRecords()
{
    Records taken;
    if (readerId == 0) {
        return taken;
    }
    InputReader::Taken read = InputReader::shared().take(readerId, maxRecordsPerUpdate);
    taken.records = std::move(read.records);
    taken.readError = read.error;
    if (read.more) {
        Q_EMIT recordsWaiting();
    }
    return taken;
}

std::uint64_t EventDevice::getBytesRead() const
{
    return readerId == 0 ? 0 : InputReader::shared().bytesRead(readerId);
}

void EventDevice::readerHasRecords(InputReader::DeviceId readerDevice)
{
    if (readerDevice == readerId && readerId != 0) {
        Q_EMIT recordsWaiting();
    }
}

void EventDevice::reportReadError(int error)
{
    // Written as the read's own lines: they tell what reading the device met.
    const auto write = [](Orvanta::Logger::Level level, const QString& text) {
        Orvanta::Logger::write(level, QString::fromLatin1(logSource), QStringLiteral("readDevice"),
                               __LINE__, text);
    };
    if (error == InputReader::shortRead) {
        write(Orvanta::Logger::LEVEL_ERROR, QStringLiteral("Could not read a full event"));
    } else if (error == ENODEV) {
        write(Orvanta::Logger::LEVEL_INFO, "Device " + Orvanta::escapeForLog(deviceFileName) +
                                               " has been removed.  Closing device.");
        closeDescriptor();
    } else if (error != 0) {
        write(Orvanta::Logger::LEVEL_ERROR, "read error: " + errorText(error));
    }
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

void EventDevice::storeLedState()
{
    if (fd == -1) {
        return;
    }
    decltype(ledState) bits{};
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

bool EventDevice::setGrabbed(bool grab)
{
    if (fd == -1 || grab == grabbed) {
        return fd != -1 || !grab;
    }
    const QString shownPath = Orvanta::escapeForLog(deviceFileName);
    if (ioctl(fd, EVIOCGRAB, grab ? 1 : 0) == -1) {
        const int error = errno;
        if (grab) {
            SELVANE_LOG(LEVEL_WARNING, "Could not grab device " + shownPath + ": " +
                                           errorText(error) +
                                           ".  Its keys also reach whoever else reads it.");
            return false;
        }
        // The kernel holds no grab of a file it no longer knows; an unplugged device ends
        // its grab by itself.
        SELVANE_LOG(LEVEL_WARNING,
                    "Could not release device " + shownPath + ": " + errorText(error));
        grabbed = false;
        return false;
    }
    grabbed = grab;
    SELVANE_LOG(LEVEL_INFO, (grab ? "Grabbed device " : "Released device ") + shownPath);
    return true;
}

bool EventDevice::isAnyKeyDown() const
{
    if (fd == -1) {
        return false;
    }
    std::array<unsigned char, KEY_MAX / 8 + 1> keys{};
    if (ioctl(fd, EVIOCGKEY(keys.size()), keys.data()) == -1) {
        return false;
    }
    return std::any_of(keys.begin(), keys.end(), [](unsigned char bits) { return bits != 0; });
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
    // The reader lets go of its descriptor first: no record of this device comes any more.
    if (readerId != 0) {
        InputReader::shared().remove(std::exchange(readerId, 0));
    }
    close(fd);
    fd = -1;
    // Closing the last descriptor of the file ends its grab.
    grabbed = false;
    node.reset();
    nameNode.reset();
}
