#include "XRequestCounter.h"

#include "overlay/DisplaySocket.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int setupHeaderBytes = 12;

uint32_t readUnsigned(const QByteArray& bytes, int offset, int size, bool littleEndian)
{
    uint32_t value = 0;
    for (int i = 0; i < size; ++i) {
        const auto byte = static_cast<uint8_t>(bytes[offset + (littleEndian ? size - 1 - i : i)]);
        value = value << 8 | byte;
    }
    return value;
}

uint64_t paddedToFour(uint64_t bytes)
{
    return (bytes + 3) & ~uint64_t(3);
}

} // namespace

int XRequestStream::bytesForLength() const
{
    if (!setupDone) {
        return setupHeaderBytes;
    }
    // The 16-bit length; when it is 0, the 32-bit one after it.
    return head.size() >= 4 && readUnsigned(head, 2, 2, littleEndian) == 0 ? 8 : 4;
}

bool XRequestStream::findLength()
{
    if (!setupDone) {
        if (head[0] != 'l' && head[0] != 'B') {
            return false;
        }
        littleEndian = head[0] == 'l';
        length = setupHeaderBytes + paddedToFour(readUnsigned(head, 6, 2, littleEndian)) +
                 paddedToFour(readUnsigned(head, 8, 2, littleEndian));
        return true;
    }
    const uint32_t units = readUnsigned(head, 2, 2, littleEndian);
    bigRequest = units == 0;
    const uint32_t bigUnits = bigRequest ? readUnsigned(head, 4, 4, littleEndian) : 0;
    // A BIG-REQUESTS request holds at least its two header words.
    if (bigRequest && bigUnits < 2) {
        return false;
    }
    length = 4 * static_cast<uint64_t>(bigRequest ? bigUnits : units);
    return true;
}

bool XRequestStream::feed(const char* data, size_t size)
{
    for (;;) {
        if (skip > 0) {
            if (size == 0) {
                return true;
            }
            const auto passed = static_cast<size_t>(std::min<uint64_t>(skip, size));
            skip -= passed;
            data += passed;
            size -= passed;
            continue;
        }
        const int wanted = length == 0 ? bytesForLength()
                                       : static_cast<int>(std::min<uint64_t>(length, headBytes));
        const auto taken =
            std::min(static_cast<size_t>(std::max<qsizetype>(wanted - head.size(), 0)), size);
        head.append(data, static_cast<int>(taken));
        data += taken;
        size -= taken;
        if (head.size() < wanted) {
            return true;
        }
        if (length == 0) {
            // A 16-bit length of 0 asks for the 32-bit one after it.
            if (head.size() == bytesForLength() && !findLength()) {
                return false;
            }
            continue;
        }
        // The setup is passed over; each request after it is handed on.
        if (setupDone) {
            onRequest(head, length, bigRequest, littleEndian);
        }
        setupDone = true;
        skip = length - static_cast<uint64_t>(head.size());
        head.clear();
        length = 0;
        bigRequest = false;
    }
}

XRequestCounter::XRequestCounter(int serverDisplayNumber) : serverDisplay(serverDisplayNumber) {}

XRequestCounter::~XRequestCounter()
{
    if (thread.joinable()) {
        const uint64_t one = 1;
        const ssize_t written = write(stop.get(), &one, sizeof(one));
        static_cast<void>(written);
        thread.join();
    }
}

bool XRequestCounter::start()
{
    stop.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stop.isValid() || !display.listen()) {
        return false;
    }
    thread = std::thread(&XRequestCounter::serve, this);
    return true;
}

int XRequestCounter::putImageCount() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(puts.size());
}

uint64_t XRequestCounter::putImageBytes() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return bytes;
}

QList<XRequestCounter::PutImage> XRequestCounter::putImages() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return puts;
}

void XRequestCounter::reset()
{
    const std::lock_guard<std::mutex> lock(mutex);
    puts.clear();
    bytes = 0;
}

int XRequestCounter::connections() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return linkCount;
}

void XRequestCounter::serve()
{
    for (;;) {
        // A side that has ended is left out: it would report a hang-up at every poll.
        std::vector<pollfd> polled = {{stop.get(), POLLIN, 0}, {display.socket(), POLLIN, 0}};
        std::vector<Link*> polledLinks;
        for (Link& link : links) {
            const auto readable = [](bool ended, const QByteArray& out) {
                return ended || !out.isEmpty() ? 0 : POLLIN;
            };
            polled.push_back({link.clientEnded ? -1 : link.client.get(),
                              static_cast<short>(readable(link.clientEnded, link.toServer) |
                                                 (link.toClient.isEmpty() ? 0 : POLLOUT)),
                              0});
            polled.push_back({link.serverEnded ? -1 : link.server.get(),
                              static_cast<short>(readable(link.serverEnded, link.toClient) |
                                                 (link.toServer.isEmpty() ? 0 : POLLOUT)),
                              0});
            polledLinks.push_back(&link);
        }
        if (poll(polled.data(), polled.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (polled[0].revents) {
            return;
        }
        if (polled[1].revents & POLLIN) {
            accept();
        }
        for (size_t i = 0; i < polledLinks.size(); ++i) {
            Link& link = *polledLinks[i];
            const short clientEvents = polled[2 + 2 * i].revents;
            const short serverEvents = polled[3 + 2 * i].revents;
            bool healthy = true;
            if (clientEvents & POLLOUT) {
                healthy = flush(link.client.get(), link.toClient);
            }
            if (healthy && (serverEvents & POLLOUT)) {
                healthy = flush(link.server.get(), link.toServer);
            }
            if (healthy && (clientEvents & (POLLIN | POLLHUP | POLLERR))) {
                healthy = forward(link, true);
            }
            if (healthy && (serverEvents & (POLLIN | POLLHUP | POLLERR))) {
                healthy = forward(link, false);
            }
            // A side that has ended is gone once what it sent has been passed on.
            if (!healthy || (link.clientEnded && link.toServer.isEmpty()) ||
                (link.serverEnded && link.toClient.isEmpty())) {
                links.remove_if([&link](const Link& candidate) { return &candidate == &link; });
                const std::lock_guard<std::mutex> lock(mutex);
                --linkCount;
            }
        }
    }
}

void XRequestCounter::accept()
{
    Orvanta::OwnedFd client(
        accept4(display.socket(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client.isValid()) {
        return;
    }
    Orvanta::OwnedFd server(DisplaySocket::connect(serverDisplay));
    if (!server.isValid()) {
        return;
    }
    links.emplace_back(
        std::move(client), std::move(server),
        [this](const QByteArray& head, uint64_t length, bool bigRequest, bool littleEndian) {
            count(head, length, bigRequest, littleEndian);
        });
    const std::lock_guard<std::mutex> lock(mutex);
    ++linkCount;
}

bool XRequestCounter::forward(Link& link, bool fromClient)
{
    char buffer[65536];
    const int from = fromClient ? link.client.get() : link.server.get();
    const ssize_t got = recv(from, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return true;
    }
    if (got <= 0) {
        (fromClient ? link.clientEnded : link.serverEnded) = true;
        return true;
    }
    if (fromClient && !link.requests.feed(buffer, static_cast<size_t>(got))) {
        return false;
    }
    QByteArray& out = fromClient ? link.toServer : link.toClient;
    out.append(buffer, static_cast<int>(got));
    return flush(fromClient ? link.server.get() : link.client.get(), out);
}

bool XRequestCounter::flush(int fd, QByteArray& waiting)
{
    while (!waiting.isEmpty()) {
        const ssize_t written =
            send(fd, waiting.constData(), static_cast<size_t>(waiting.size()), MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && errno == EAGAIN) {
            return true;
        }
        if (written <= 0) {
            return false;
        }
        waiting.remove(0, static_cast<int>(written));
    }
    return true;
}

void XRequestCounter::count(const QByteArray& head, uint64_t length, bool bigRequest,
                            bool littleEndian)
{
    if (static_cast<uint8_t>(head[0]) != putImageOpcode) {
        return;
    }
    // Format, length, drawable, gc, width, height, dst-x, dst-y, left-pad,
    // depth; in BIG-REQUESTS form all after the 32-bit length.
    const int at = bigRequest ? 4 : 0;
    if (head.size() < at + 20) {
        return;
    }
    PutImage put;
    put.drawable = readUnsigned(head, at + 4, 4, littleEndian);
    put.width = static_cast<int>(readUnsigned(head, at + 12, 2, littleEndian));
    put.height = static_cast<int>(readUnsigned(head, at + 14, 2, littleEndian));
    put.dstX = static_cast<int16_t>(readUnsigned(head, at + 16, 2, littleEndian));
    put.dstY = static_cast<int16_t>(readUnsigned(head, at + 18, 2, littleEndian));
    put.bytes = length;
    const std::lock_guard<std::mutex> lock(mutex);
    puts.append(put);
    bytes += length;
}
