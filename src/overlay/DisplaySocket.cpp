#include "overlay/DisplaySocket.h"

#include <QByteArray>

#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
// Connects `fd` to the Unix socket at `path` (a leading NUL names an abstract socket).
bool connectUnixSocket(int fd, const QByteArray& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (static_cast<size_t>(path.size()) > sizeof(address.sun_path)) {
        return false;
    }
    memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
}
} // namespace

int DisplaySocket::connect(int displayId)
{
    const QByteArray path = "/tmp/.X11-unix/X" + QByteArray::number(displayId);
    for (const QByteArray& candidate : {QByteArray(1, '\0') + path, path}) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) {
            return -1;
        }
        if (connectUnixSocket(fd, candidate)) {
            return fd;
        }
        close(fd);
    }
    return -1;
}
