#include "UmockdevTestbed.h"

#include "input/EventDevice.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryFile>

// GLib's headers use "signals" as a member name; Qt's keyword macro must not rewrite it.
#pragma push_macro("signals")
#undef signals
#include <umockdev.h>
#pragma pop_macro("signals")

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr char preloadSoname[] = "libumockdev-preload.so.0";
constexpr char reexecMarker[] = "SELVANE_UMOCKDEV_REEXEC";
constexpr int evdevMajor = 13;
constexpr int evdevMinorBase = 64;
constexpr int recordSize = sizeof(input_event);

// Takes a string that the callee allocated with GLib.
QString takeGString(gchar* text)
{
    const QString result = QString::fromUtf8(text);
    g_free(text);
    return result;
}

QString takeError(GError* error)
{
    const QString message = error ? QString::fromUtf8(error->message) : QString();
    g_clear_error(&error);
    return message;
}

// A bit array of `bytes` bytes with the bits of `codes` set, as hex for an ioctl record.
QByteArray bitsAsHex(int bytes, const QVector<int>& codes)
{
    QByteArray bits(bytes, '\0');
    for (int code : codes) {
        if (code < 0 || code >= bytes * 8) {
            qWarning() << "UmockdevTestbed: code" << code << "does not fit" << bytes << "bytes";
            continue;
        }
        bits[code / 8] = static_cast<char>(bits[code / 8] | (1 << (code % 8)));
    }
    return bits.toHex().toUpper();
}

// The device-side descriptor is used with raw system calls: the preload library must neither
// redirect nor emulate them, they are the test's own view of the pseudo terminal.
long queuedBytes(int fd)
{
    int queued = 0;
    if (syscall(SYS_ioctl, fd, TIOCINQ, &queued) != 0) {
        return -1;
    }
    return queued;
}

// The number of the pseudo terminal whose master `fd` is; -1 for any other descriptor.
int masterPtyNumber(int fd)
{
    unsigned number = 0;
    if (syscall(SYS_ioctl, fd, TIOCGPTN, &number) != 0) {
        return -1;
    }
    return static_cast<int>(number);
}

} // namespace

UmockdevTestbed::UmockdevTestbed() : testbed(umockdev_testbed_new(), g_object_unref) {}

UmockdevTestbed::~UmockdevTestbed()
{
    testbed.reset();
    for (const Node& entry : std::as_const(nodes)) {
        if (entry.probeFd != -1) {
            close(entry.probeFd);
        }
        closeLeftOpen(entry);
    }
    for (const Node& entry : std::as_const(removedNodes)) {
        closeLeftOpen(entry);
    }
}

void UmockdevTestbed::closeLeftOpen(const Node& entry)
{
    if (entry.ptyNumber >= 0 && masterPtyNumber(entry.masterFd) == entry.ptyNumber) {
        close(entry.masterFd);
    }
}

QString UmockdevTestbed::preloadLibrary()
{
    const QString path = QStringLiteral(SELVANE_UMOCKDEV_PRELOAD);
    return !path.isEmpty() && QFileInfo::exists(path) ? path : QString();
}

bool UmockdevTestbed::isPreloaded()
{
    void* handle = dlopen(preloadSoname, RTLD_LAZY | RTLD_NOLOAD);
    if (!handle) {
        return false;
    }
    dlclose(handle);
    return true;
}

void UmockdevTestbed::requirePreload(int argc, char** argv)
{
    Q_UNUSED(argc);
    if (isPreloaded()) {
        return;
    }
    const QString library = preloadLibrary();
    if (library.isEmpty() || qEnvironmentVariableIsSet(reexecMarker)) {
        std::fprintf(stderr, "umockdev's preload library is not available: skipping\n");
        std::exit(77);
    }
    QByteArray preload = QFile::encodeName(library);
    if (qEnvironmentVariableIsSet("LD_PRELOAD")) {
        preload += ':' + qgetenv("LD_PRELOAD");
    }
    // The sanitizer runtime wants to be first in the library list; umockdev has to be first.
    QByteArray asanOptions = qgetenv("ASAN_OPTIONS");
    asanOptions += (asanOptions.isEmpty() ? "" : ":") + QByteArray("verify_asan_link_order=0");
    qputenv("LD_PRELOAD", preload);
    qputenv("ASAN_OPTIONS", asanOptions);
    qputenv(reexecMarker, "1");
    execv("/proc/self/exe", argv);
    std::fprintf(stderr, "cannot re-execute with umockdev's preload library: %s: skipping\n",
                 std::strerror(errno));
    std::exit(77);
}

QString UmockdevTestbed::rootDir() const
{
    return takeGString(umockdev_testbed_get_root_dir(testbed.get()));
}

QProcessEnvironment UmockdevTestbed::clientEnvironment() const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString library = preloadLibrary();
    const QString preload = environment.value(QStringLiteral("LD_PRELOAD"));
    if (!library.isEmpty() && !preload.contains(library)) {
        environment.insert(QStringLiteral("LD_PRELOAD"),
                           preload.isEmpty() ? library : library + ':' + preload);
    }
    environment.insert(QStringLiteral("UMOCKDEV_DIR"), rootDir());
    return environment;
}

QString UmockdevTestbed::addDevice(const DeviceDescription& description,
                                   const UmockdevDeviceState& state)
{
    const int number = nextEventNumber++;
    const QString node = QStringLiteral("/dev/input/event%1").arg(number);
    const QString sysPath = QStringLiteral("/devices/virtual/input/input%1/event%1").arg(number);

    // An "N:" line without contents makes the node a pseudo terminal whose other end we hold.
    const QString deviceRecord = QStringLiteral("P: %1\n"
                                                "N: input/event%2\n"
                                                "E: DEVNAME=%3\n"
                                                "E: SUBSYSTEM=input\n"
                                                "E: ID_INPUT=1\n")
                                     .arg(sysPath)
                                     .arg(number)
                                     .arg(node) +
                                 (state.deviceMajor == 0 ? QString()
                                                         : QStringLiteral("A: dev=%1:%2\n")
                                                               .arg(state.deviceMajor)
                                                               .arg(evdevMinorBase + number));
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(testbed.get(), deviceRecord.toUtf8().constData(),
                                          &error)) {
        qWarning() << "UmockdevTestbed: cannot add" << node << takeError(error);
        return QString();
    }

    QTemporaryFile recordFile;
    if (!recordFile.open()) {
        qWarning() << "UmockdevTestbed: cannot write the ioctl record for" << node;
        return QString();
    }
    recordFile.write(ioctlRecord(node, description, state).toUtf8());
    recordFile.close();
    if (!umockdev_testbed_load_ioctl(testbed.get(), node.toUtf8().constData(),
                                     QFile::encodeName(recordFile.fileName()).constData(),
                                     &error)) {
        qWarning() << "UmockdevTestbed: cannot load the ioctl record for" << node
                   << takeError(error);
        return QString();
    }

    Node entry;
    entry.sysPath = QStringLiteral("/sys") + sysPath;
    entry.masterFd = umockdev_testbed_get_dev_fd(testbed.get(), node.toUtf8().constData());
    const QString terminal = QFileInfo(rootDir() + node).symLinkTarget();
    entry.probeFd =
        static_cast<int>(syscall(SYS_openat, AT_FDCWD, QFile::encodeName(terminal).constData(),
                                 O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    // The programs a test starts (the daemon, the bus, X servers) must not
    // hold the terminals: a node would outlive its removal in them.
    if (entry.masterFd != -1) {
        fcntl(entry.masterFd, F_SETFD, FD_CLOEXEC);
        entry.ptyNumber = masterPtyNumber(entry.masterFd);
    }
    if (entry.masterFd == -1 || entry.probeFd == -1) {
        qWarning() << "UmockdevTestbed: no terminal behind" << node << terminal;
        if (entry.probeFd != -1) {
            close(entry.probeFd);
        }
        return QString();
    }
    nodes.insert(node, entry);
    return node;
}

void UmockdevTestbed::removeDevice(const QString& node)
{
    Node* entry = findNode(node);
    if (!entry) {
        return;
    }
    umockdev_testbed_remove_device(testbed.get(), entry->sysPath.toUtf8().constData());
    close(entry->probeFd);
    entry->probeFd = -1;
    removedNodes.append(*entry);
    nodes.remove(node);
}

QByteArray UmockdevTestbed::eventRecord(int type, int code, int value)
{
    input_event event{};
    event.type = static_cast<__u16>(type);
    event.code = static_cast<__u16>(code);
    event.value = value;
    return QByteArray(reinterpret_cast<const char*>(&event), recordSize);
}

bool UmockdevTestbed::writeBytes(const QString& node, const QByteArray& bytes)
{
    Node* entry = findNode(node);
    if (!entry || !writeAll(entry->masterFd, bytes)) {
        return false;
    }
    entry->unwaitedBytes += bytes.size();
    return true;
}

bool UmockdevTestbed::writeEvent(const QString& node, int type, int code, int value)
{
    return writeBytes(node, eventRecord(type, code, value));
}

bool UmockdevTestbed::pressKey(const QString& node, int code)
{
    return writeBytes(node, eventRecord(EV_KEY, code, 1) + eventRecord(EV_SYN, SYN_REPORT, 0));
}

bool UmockdevTestbed::releaseKey(const QString& node, int code)
{
    return writeBytes(node, eventRecord(EV_KEY, code, 0) + eventRecord(EV_SYN, SYN_REPORT, 0));
}

bool UmockdevTestbed::repeatKey(const QString& node, int code)
{
    return writeBytes(node, eventRecord(EV_KEY, code, 2) + eventRecord(EV_SYN, SYN_REPORT, 0));
}

bool UmockdevTestbed::waitForPendingInput(const QString& node, int bytes, int timeoutMs)
{
    Node* entry = findNode(node);
    if (!entry) {
        return false;
    }
    const long wanted = bytes < 0 ? entry->unwaitedBytes : bytes;
    if (!waitForQueued(*entry, wanted, timeoutMs)) {
        qWarning() << "UmockdevTestbed:" << node << "has" << queuedBytes(entry->probeFd)
                   << "bytes queued, expected" << wanted;
        return false;
    }
    return true;
}

bool UmockdevTestbed::waitUntilRead(const QString& node, const EventDevice& device, int timeoutMs)
{
    Node* entry = findNode(node);
    if (!entry) {
        return false;
    }
    if (entry->readerDevice != device.getId()) {
        entry->readerDevice = device.getId();
        entry->readAtLastWait = 0;
    }
    const std::uint64_t wanted = entry->readAtLastWait + std::uint64_t(entry->unwaitedBytes);
    QElapsedTimer timer;
    timer.start();
    while (device.getBytesRead() < wanted) {
        if (timer.hasExpired(timeoutMs)) {
            qWarning() << "UmockdevTestbed: the reader read" << device.getBytesRead() << "bytes of"
                       << node << ", expected" << wanted;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    entry->readAtLastWait = device.getBytesRead();
    entry->unwaitedBytes = 0;
    return true;
}

void UmockdevTestbed::waitForDelivery(const QString& node, int timeoutMs)
{
    if (Node* entry = findNode(node)) {
        waitForQueued(*entry, 1, timeoutMs);
        // A reader that takes its records as they arrive has them once the node is empty.
        QElapsedTimer timer;
        timer.start();
        while (queuedBytes(entry->probeFd) > 0 && !timer.hasExpired(readTimeoutMs)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        entry->unwaitedBytes = 0;
    }
}

bool UmockdevTestbed::waitForQueued(Node& entry, long wanted, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    // The terminal layer moves the bytes over from a kernel work queue; nothing signals their
    // arrival without consuming them, so look at the queue length until it is reached.
    while (queuedBytes(entry.probeFd) < wanted) {
        if (timer.hasExpired(timeoutMs)) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    entry.unwaitedBytes = 0;
    return true;
}

QVector<input_event> UmockdevTestbed::readEvents(const QString& node, int count, int timeoutMs)
{
    QVector<input_event> events;
    Node* entry = findNode(node);
    if (!entry) {
        return events;
    }
    QElapsedTimer timer;
    timer.start();
    while (entry->received.size() < count * recordSize) {
        const qint64 remaining = timeoutMs - timer.elapsed();
        pollfd readable{entry->masterFd, POLLIN, 0};
        if (remaining <= 0 || poll(&readable, 1, static_cast<int>(remaining)) <= 0) {
            break;
        }
        char buffer[1024];
        const ssize_t got = read(entry->masterFd, buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        entry->received.append(buffer, static_cast<int>(got));
    }
    const int available = std::min<int>(count, entry->received.size() / recordSize);
    for (int i = 0; i < available; ++i) {
        input_event event;
        std::memcpy(&event, entry->received.constData() + i * recordSize, recordSize);
        events.append(event);
    }
    entry->received.remove(0, available * recordSize);
    return events;
}

bool UmockdevTestbed::injectDeviceSideEvent(const QString& node, int type, int code, int value)
{
    Node* entry = findNode(node);
    return entry && writeAll(entry->probeFd, eventRecord(type, code, value));
}

UmockdevTestbed::Node* UmockdevTestbed::findNode(const QString& node)
{
    auto found = nodes.find(node);
    if (found == nodes.end()) {
        qWarning() << "UmockdevTestbed: no emulated device" << node;
        return nullptr;
    }
    return &found.value();
}

bool UmockdevTestbed::writeAll(int fd, const QByteArray& bytes)
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t written = write(fd, bytes.constData() + done, bytes.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            qWarning() << "UmockdevTestbed: write failed:" << std::strerror(errno);
            return false;
        }
        done += written;
    }
    return true;
}

QString UmockdevTestbed::ioctlRecord(const QString& node, const DeviceDescription& description,
                                     const UmockdevDeviceState& state) const
{
    // Text form of umockdev's ioctl records: "NAME(id) result hex-data", the data exactly as
    // long as the buffer the program passes.
    QStringList lines;
    lines << QStringLiteral("@DEV %1").arg(node);

    const QByteArray name = description.name.toUtf8().left(nameLength - 1);
    QByteArray nameBuffer = name;
    nameBuffer.append(nameLength - name.size(), '\0');
    lines << QStringLiteral("EVIOCGNAME(0) %1 %2")
                 .arg(name.size() + 1)
                 .arg(QString::fromLatin1(nameBuffer.toHex().toUpper()));

    const auto bitsLine = [](const char* request, int id, int bytes, const QVector<int>& codes) {
        return QStringLiteral("%1(%2) %3 %4")
            .arg(QLatin1String(request))
            .arg(id)
            .arg(bytes)
            .arg(QString::fromLatin1(bitsAsHex(bytes, codes)));
    };
    if (!state.eventTypesFail) {
        lines << bitsLine("EVIOCGBIT", 0, eventTypeBytes, description.eventTypes);
    }
    if (description.eventTypes.contains(EV_KEY)) {
        lines << bitsLine("EVIOCGBIT", EV_KEY, keyBytes, description.keys);
    }
    if (description.eventTypes.contains(EV_REL)) {
        lines << bitsLine("EVIOCGBIT", EV_REL, relativeAxisBytes, description.relativeAxes);
    }
    if (description.eventTypes.contains(EV_LED)) {
        lines << bitsLine("EVIOCGBIT", EV_LED, ledBytes, description.leds);
    }
    lines << bitsLine("EVIOCGKEY", 0, keyBytes, state.keysDown);
    if (!state.ledStateFails) {
        lines << bitsLine("EVIOCGLED", 0, ledBytes, state.ledsOn);
    }
    // umockdev answers each call with the next matching record after the last one it used.
    for (const QVector<int>& keys : state.laterKeysDown) {
        lines << bitsLine("EVIOCGKEY", 0, keyBytes, keys);
    }
    return lines.join(QLatin1Char('\n')) + QLatin1Char('\n');
}
