#include "UinputDevice.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/uinput.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr char uinputPath[] = "/dev/uinput";
// The node appears while UI_DEV_CREATE runs; the deadline only guards
// against a kernel that creates it asynchronously.
constexpr int nodeTimeoutMs = 5000;

QString systemError(const QString& what)
{
    return what + ": " + QString::fromLocal8Bit(std::strerror(errno));
}

// One input_event record; the kernel stamps the time.
bool writeEvent(int target, int type, int code, int value)
{
    input_event event{};
    event.type = type;
    event.code = code;
    event.value = value;
    return ::write(target, &event, sizeof(event)) == static_cast<ssize_t>(sizeof(event));
}

} // namespace

char* toString(const UinputLedEvent& event)
{
    return qstrdup(QByteArray("(LED " + QByteArray::number(event.code) + ", " +
                              QByteArray::number(event.value) + ")")
                       .constData());
}

UinputDevice::UinputDevice(const DeviceDescription& description)
{
    if (!create(description) || !findEventNode()) {
        destroy();
    }
}

UinputDevice::~UinputDevice()
{
    destroy();
}

bool UinputDevice::isAvailable()
{
    const int probe = ::open(uinputPath, O_RDWR | O_CLOEXEC);
    if (probe == -1) {
        return false;
    }
    ::close(probe);
    return true;
}

bool UinputDevice::create(const DeviceDescription& description)
{
    fd = ::open(uinputPath, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) {
        error = systemError(QString("open ") + uinputPath);
        return false;
    }

    const auto enable = [this](unsigned long request, const QVector<int>& codes, const char* what) {
        for (int code : codes) {
            if (::ioctl(fd, request, code) == -1) {
                error = systemError(QString(what) + " " + QString::number(code));
                return false;
            }
        }
        return true;
    };
    if (!enable(UI_SET_EVBIT, description.eventTypes, "UI_SET_EVBIT") ||
        !enable(UI_SET_KEYBIT, description.keys, "UI_SET_KEYBIT") ||
        !enable(UI_SET_RELBIT, description.relativeAxes, "UI_SET_RELBIT") ||
        !enable(UI_SET_LEDBIT, description.leds, "UI_SET_LEDBIT")) {
        return false;
    }

    uinput_setup setup{};
    setup.id.bustype = BUS_VIRTUAL;
    setup.id.vendor = 0x4f56; // "OV"
    setup.id.product = 0x0001;
    setup.id.version = 1;
    const QByteArray name = description.name.toUtf8().left(UINPUT_MAX_NAME_SIZE - 1);
    std::memcpy(setup.name, name.constData(), name.size());
    if (::ioctl(fd, UI_DEV_SETUP, &setup) == -1) {
        error = systemError("UI_DEV_SETUP");
        return false;
    }
    if (::ioctl(fd, UI_DEV_CREATE) == -1) {
        error = systemError("UI_DEV_CREATE");
        return false;
    }
    // The kernel repeats a held key every 33 ms after 250 ms. A busy VM can
    // stall that long between two steps of a test, and the repeats would then
    // push the test's own events out of a reader's next read. A repeat period
    // of 0 stops it; tests that want repeats send them (value 2) themselves.
    // The SYN_REPORT flushes it now instead of in front of the first key.
    if (description.eventTypes.contains(EV_REP) && !(send(EV_REP, REP_PERIOD, 0) && sync())) {
        error = systemError("switching off key repeat");
        return false;
    }
    return true;
}

bool UinputDevice::findEventNode()
{
    char sysName[64] = {};
    if (::ioctl(fd, UI_GET_SYSNAME(sizeof(sysName) - 1), sysName) == -1) {
        error = systemError("UI_GET_SYSNAME");
        return false;
    }
    // The evdev handler adds an "eventN" child to the input device in sysfs;
    // devtmpfs names the node after it.
    const QDir sysDir(QString("/sys/devices/virtual/input/") + sysName);
    const QDeadlineTimer deadline(nodeTimeoutMs);
    do {
        const QStringList children = sysDir.entryList({"event*"}, QDir::Dirs);
        if (!children.isEmpty() && QFileInfo::exists("/dev/input/" + children.first())) {
            nodePath = "/dev/input/" + children.first();
            return true;
        }
        QThread::msleep(10);
    } while (!deadline.hasExpired());
    error =
        "no event node appeared for " + sysDir.path() + " (is evdev loaded and devtmpfs mounted?)";
    return false;
}

void UinputDevice::destroy()
{
    if (fd == -1) {
        return;
    }
    ::ioctl(fd, UI_DEV_DESTROY);
    ::close(fd);
    fd = -1;
}

bool UinputDevice::send(int type, int code, int value)
{
    return fd != -1 && writeEvent(fd, type, code, value);
}

bool UinputDevice::sync()
{
    return send(EV_SYN, SYN_REPORT, 0);
}

bool UinputDevice::press(int key)
{
    return send(EV_KEY, key, 1) && sync();
}

bool UinputDevice::release(int key)
{
    return send(EV_KEY, key, 0) && sync();
}

bool UinputDevice::writeToNode(int type, int code, int value)
{
    const int node = ::open(QFile::encodeName(nodePath).constData(), O_WRONLY | O_CLOEXEC);
    if (node == -1) {
        return false;
    }
    const bool written = writeEvent(node, type, code, value);
    ::close(node);
    return written;
}

int UinputDevice::ledBits() const
{
    const int node = ::open(QFile::encodeName(nodePath).constData(), O_RDONLY | O_CLOEXEC);
    if (node == -1) {
        return -1;
    }
    unsigned char bits[LED_MAX / 8 + 1] = {};
    const int result = ::ioctl(node, EVIOCGLED(sizeof(bits)), bits);
    ::close(node);
    return result < 0 ? -1 : bits[0] | bits[1] << 8;
}

QVector<UinputLedEvent> UinputDevice::takeLedEvents()
{
    QVector<UinputLedEvent> leds;
    if (fd == -1) {
        return leds;
    }
    input_event event;
    while (::read(fd, &event, sizeof(event)) == static_cast<ssize_t>(sizeof(event))) {
        if (event.type == EV_LED) {
            leds.append({event.code, event.value});
        }
    }
    return leds;
}

bool UinputDevice::unplug()
{
    if (fd == -1) {
        return false;
    }
    destroy();
    const QDeadlineTimer deadline(nodeTimeoutMs);
    while (QFileInfo::exists(nodePath)) {
        if (deadline.hasExpired()) {
            error = nodePath + " still exists after UI_DEV_DESTROY";
            return false;
        }
        QThread::msleep(10);
    }
    return true;
}
