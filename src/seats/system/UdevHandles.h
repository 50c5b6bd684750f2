#pragma once

#include <libudev.h>

#include <memory>

// Owning handles of libudev's reference-counted objects: each drops its
// reference when it goes out of scope. A device reached through
// udev_device_get_parent* is not owned (it lives as long as its child) and is
// never put in one of these. libudev's objects are not thread-safe: each handle stays
// on the thread that made it (the bridge's main thread).
struct UdevUnref
{
    void operator()(udev* context) const { udev_unref(context); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
    void operator()(udev_enumerate* enumerate) const { udev_enumerate_unref(enumerate); }
    void operator()(udev_monitor* monitor) const { udev_monitor_unref(monitor); }
};

using UdevContext = std::unique_ptr<udev, UdevUnref>;
using UdevDevice = std::unique_ptr<udev_device, UdevUnref>;
using UdevEnumerate = std::unique_ptr<udev_enumerate, UdevUnref>;
using UdevMonitor = std::unique_ptr<udev_monitor, UdevUnref>;
