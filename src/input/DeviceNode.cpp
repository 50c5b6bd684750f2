#include "input/DeviceNode.h"

#include <QFile>

#include <sys/stat.h>

// A character device without a device number (0:0, which no driver has; an
// emulated node may show so) is told apart by its file.
DeviceNode::DeviceNode(const struct stat& status)
    : character(S_ISCHR(status.st_mode) && status.st_rdev != 0),
      device(character ? status.st_rdev : status.st_dev), inode(character ? 0 : status.st_ino)
{
}

std::optional<DeviceNode> DeviceNode::ofPath(const QString& path)
{
    struct stat status
    {
    };
    if (stat(QFile::encodeName(path).constData(), &status) != 0) {
        return std::nullopt;
    }
    return DeviceNode(status);
}

std::optional<DeviceNode> DeviceNode::ofDescriptor(int fd)
{
    struct stat status
    {
    };
    if (fstat(fd, &status) != 0) {
        return std::nullopt;
    }
    return DeviceNode(status);
}
