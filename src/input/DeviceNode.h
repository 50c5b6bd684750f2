#pragma once

#include <QString>

#include <sys/types.h>

#include <optional>

struct stat;

// What a device file is, whatever path names it: the device number of a
// character device node, or the file itself (its file system and inode) for
// anything else, such as an emulated node or a character node without a
// device number. Two paths name the same device when their nodes are equal.
// A plain value, held by an EventDevice on the main thread.
class DeviceNode
{
public:
    // The node that `path` names, following links; none when it cannot be looked at.
    static std::optional<DeviceNode> ofPath(const QString& path);
    // The node that the open descriptor `fd` refers to; none when it cannot be looked at.
    static std::optional<DeviceNode> ofDescriptor(int fd);

    bool operator==(const DeviceNode& other) const
    {
        return character == other.character && device == other.device && inode == other.inode;
    }
    bool operator!=(const DeviceNode& other) const { return !(*this == other); }

private:
    explicit DeviceNode(const struct stat& status);

    bool character;
    dev_t device;
    ino_t inode;
};
