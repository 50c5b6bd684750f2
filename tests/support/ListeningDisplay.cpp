#include "ListeningDisplay.h"

#include "XvfbServer.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

// Display numbers tried: those that the tests of a display without a server
// leave to others come last.
constexpr int firstNumber = 650;

QString lockFile(int number)
{
    return QStringLiteral("/tmp/.X%1-lock").arg(number);
}

} // namespace

ListeningDisplay::~ListeningDisplay()
{
    listener.reset();
    if (displayNumber >= 0) {
        QFile::remove(lockFile(displayNumber));
    }
}

bool ListeningDisplay::listen(std::optional<uid_t> listenerUid)
{
    for (int number = XvfbServer::unusedDisplayNumber(firstNumber); number >= 0;
         number = XvfbServer::unusedDisplayNumber(number + 1)) {
        // The lock file first, as an X server takes its number.
        const Orvanta::OwnedFd lock(
            open(qPrintable(lockFile(number)), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (!lock.isValid()) {
            continue;
        }
        const QByteArray pid = QByteArray::number(getpid()).rightJustified(10, ' ') + '\n';
        const bool locked = write(lock.get(), pid.constData(), static_cast<size_t>(pid.size())) ==
                            static_cast<ssize_t>(pid.size());
        if (locked && listenOn(number, listenerUid)) {
            displayNumber = number;
            return true;
        }
        QFile::remove(lockFile(number));
    }
    return false;
}

bool ListeningDisplay::listenOn(int number, std::optional<uid_t> listenerUid)
{
    // A thread of its own, whose credentials alone change: the kernel gives
    // the listening socket the credentials of the thread that calls listen().
    std::thread making([&] {
        if (listenerUid && syscall(SYS_setresuid, static_cast<uid_t>(-1), *listenerUid,
                                   static_cast<uid_t>(-1)) != 0) {
            return;
        }
        Orvanta::OwnedFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!fd.isValid()) {
            return;
        }
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const QByteArray name = "/tmp/.X11-unix/X" + QByteArray::number(number);
        // An abstract name: a NUL, then the path.
        memcpy(address.sun_path + 1, name.constData(), static_cast<size_t>(name.size()));
        const auto length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
            ::listen(fd.get(), 16) == 0) {
            listener = std::move(fd);
        }
    });
    making.join();
    return listener.isValid();
}
