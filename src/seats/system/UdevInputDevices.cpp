#include "seats/system/UdevInputDevices.h"

#include "common/Logger.h"
#include "seats/system/DeviceRecord.h"

#include <QSocketNotifier>

#include <algorithm>

namespace {
constexpr char logSource[] = "UdevInputDevices";

QString text(const char* value)
{
    return value == nullptr ? QString() : QString::fromUtf8(value);
}

DeviceRecord recordOf(udev_device* device)
{
    DeviceRecord record;
    record.syspath = text(udev_device_get_syspath(device));
    record.sysname = text(udev_device_get_sysname(device));
    record.subsystem = text(udev_device_get_subsystem(device));
    record.devtype = text(udev_device_get_devtype(device));
    record.devnode = text(udev_device_get_devnode(device));
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_device_get_properties_list_entry(device))
    {
        record.properties.insert(text(udev_list_entry_get_name(entry)),
                                 text(udev_list_entry_get_value(entry)));
    }
    udev_list_entry_foreach(entry, udev_device_get_tags_list_entry(device))
    {
        record.tags.append(text(udev_list_entry_get_name(entry)));
    }
    // udev also gives the tags as the property TAGS (":seat:master-of-seat:"),
    // which is all that an emulated udev database may hold of them.
    const QStringList tagProperty =
        record.properties.value(QStringLiteral("TAGS")).split(QLatin1Char(':'), Qt::SkipEmptyParts);
    for (const QString& tag : tagProperty) {
        if (!record.tags.contains(tag)) {
            record.tags.append(tag);
        }
    }
    record.hasIdVendor = udev_device_get_sysattr_value(device, "idVendor") != nullptr;
    record.nameAttribute = text(udev_device_get_sysattr_value(device, "name"));
    return record;
}

QVector<DeviceRecord> ancestorsOf(udev_device* device)
{
    QVector<DeviceRecord> ancestors;
    // The parents belong to the child; none is unreferenced here.
    for (udev_device* parent = udev_device_get_parent(device); parent != nullptr;
         parent = udev_device_get_parent(parent)) {
        ancestors.append(recordOf(parent));
    }
    return ancestors;
}

// Calls `visit` with each device of the subsystem whose name matches the
// pattern; devices that vanish while being read are left out.
template <typename Visit>
void forEachDevice(udev* context, const char* subsystem, const char* sysname, Visit visit)
{
    const UdevEnumerate enumerate(udev_enumerate_new(context));
    if (!enumerate) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot enumerate udev's %s devices", subsystem);
        return;
    }
    udev_enumerate_add_match_subsystem(enumerate.get(), subsystem);
    udev_enumerate_add_match_sysname(enumerate.get(), sysname);
    if (udev_enumerate_scan_devices(enumerate.get()) < 0) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot scan udev's %s devices", subsystem);
        return;
    }
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate.get()))
    {
        const UdevDevice device(
            udev_device_new_from_syspath(context, udev_list_entry_get_name(entry)));
        if (device) {
            visit(device.get());
        }
    }
}

template <typename Info> void sortBySyspath(QVector<Info>& list)
{
    std::sort(list.begin(), list.end(),
              [](const Info& a, const Info& b) { return a.syspath < b.syspath; });
}
} // namespace

UdevInputDevices::UdevInputDevices(QObject* parent) : QObject(parent), context(udev_new())
{
    if (!context) {
        SELVANE_LOG(LEVEL_ERROR, "Cannot make a udev context");
    }
}

UdevInputDevices::~UdevInputDevices() = default;

bool UdevInputDevices::start()
{
    if (!context) {
        return false;
    }
    notifier.reset();
    monitor.reset(udev_monitor_new_from_netlink(context.get(), "udev"));
    if (!monitor ||
        udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), "input", nullptr) < 0 ||
        udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), "drm", nullptr) < 0 ||
        udev_monitor_enable_receiving(monitor.get()) < 0) {
        SELVANE_LOG(LEVEL_ERROR, "Cannot follow udev's input and drm devices");
        monitor.reset();
        return false;
    }
    // libudev makes the monitor's socket non-blocking, so readUevents() can
    // drain it until it is empty.
    notifier = std::make_unique<QSocketNotifier>(udev_monitor_get_fd(monitor.get()),
                                                 QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &UdevInputDevices::readUevents);
    return true;
}

void UdevInputDevices::readUevents()
{
    int count = 0;
    while (const UdevDevice device{udev_monitor_receive_device(monitor.get())}) {
        SELVANE_LOG(LEVEL_DEBUG, "udev: %s %s",
                    qPrintable(text(udev_device_get_action(device.get()))),
                    qPrintable(text(udev_device_get_syspath(device.get()))));
        ++count;
    }
    if (count > 0) {
        Q_EMIT changed();
    }
}

QVector<InputDeviceInfo> UdevInputDevices::snapshotInputDevices() const
{
    QVector<InputDeviceInfo> devices;
    if (!context) {
        return devices;
    }
    forEachDevice(context.get(), "input", "event[0-9]*", [&devices](udev_device* device) {
        if (auto info = inputDeviceFrom(recordOf(device), ancestorsOf(device))) {
            devices.append(*info);
        }
    });
    sortBySyspath(devices);
    return devices;
}

QVector<GraphicsCardInfo> UdevInputDevices::snapshotGraphicsCards() const
{
    QVector<GraphicsCardInfo> cards;
    if (!context) {
        return cards;
    }
    forEachDevice(context.get(), "drm", "card[0-9]*", [&cards](udev_device* device) {
        if (auto card = graphicsCardFrom(recordOf(device))) {
            cards.append(*card);
        }
    });
    sortBySyspath(cards);
    return cards;
}
