#include "FakeXServer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint8_t internAtomOpcode = 16;
constexpr uint8_t getPropertyOpcode = 20;
constexpr uint8_t getInputFocusOpcode = 43;
constexpr uint8_t queryExtensionOpcode = 98;
constexpr uint8_t randrQueryVersionMinor = 0;

uint16_t read16(const QByteArray& bytes, int offset)
{
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes[offset]) |
                                 static_cast<uint8_t>(bytes[offset + 1]) << 8);
}

void put16(std::array<uint8_t, 32>& out, size_t offset, uint16_t value)
{
    out[offset] = static_cast<uint8_t>(value & 0xff);
    out[offset + 1] = static_cast<uint8_t>(value >> 8);
}

void put32(std::array<uint8_t, 32>& out, size_t offset, uint32_t value)
{
    put16(out, offset, static_cast<uint16_t>(value & 0xffff));
    put16(out, offset + 2, static_cast<uint16_t>(value >> 16));
}

int paddedToFour(int bytes)
{
    return (bytes + 3) & ~3;
}

bool writeAll(int fd, const void* data, size_t size)
{
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = send(fd, bytes, size, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

} // namespace

FakeXServer::FakeXServer(QByteArray setupReply, AfterSetup whatFollows)
    : setup(std::move(setupReply)), afterSetup(whatFollows)
{
}

FakeXServer::~FakeXServer()
{
    if (thread.joinable()) {
        const uint64_t one = 1;
        const ssize_t written = write(stopFd, &one, sizeof(one));
        static_cast<void>(written);
        thread.join();
    }
    for (const Client& client : clients) {
        close(client.fd);
    }
    if (stopFd >= 0) {
        close(stopFd);
    }
}

bool FakeXServer::start(std::optional<uid_t> listenerUid)
{
    stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stopFd < 0 || !display.listen(listenerUid)) {
        return false;
    }
    thread = std::thread(&FakeXServer::serve, this);
    return true;
}

void FakeXServer::sendScreenChange(uint16_t width, uint16_t height)
{
    const std::lock_guard<std::mutex> lock(mutex);
    for (Client& client : clients) {
        if (!client.setupDone) {
            continue;
        }
        std::array<uint8_t, 32> event{};
        event[0] = randrFirstEvent;
        event[1] = 1; // rotation 0
        put16(event, 2, client.sequence);
        put32(event, 12, 0x100); // root
        put32(event, 16, 0x100); // request window
        put16(event, 24, width);
        put16(event, 26, height);
        put16(event, 28, 300);
        put16(event, 30, 200);
        writeAll(client.fd, event.data(), event.size());
    }
}

void FakeXServer::serve()
{
    for (;;) {
        std::vector<pollfd> polled = {{stopFd, POLLIN, 0}, {display.socket(), POLLIN, 0}};
        {
            const std::lock_guard<std::mutex> lock(mutex);
            for (const Client& client : clients) {
                if (!client.silent) {
                    polled.push_back({client.fd, POLLIN, 0});
                }
            }
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
        const std::lock_guard<std::mutex> lock(mutex);
        if (polled[1].revents & POLLIN) {
            const int fd = accept4(display.socket(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                clients.push_back({fd, QByteArray()});
                ++connectionCount;
            }
        }
        for (size_t index = 2; index < polled.size(); ++index) {
            if (!polled[index].revents) {
                continue;
            }
            const int fd = polled[index].fd;
            auto client =
                std::find_if(clients.begin(), clients.end(),
                             [fd](const Client& candidate) { return candidate.fd == fd; });
            if (client != clients.end() && !handleInput(*client)) {
                close(client->fd);
                clients.erase(client);
            }
        }
    }
}

bool FakeXServer::handleInput(Client& client)
{
    char buffer[65536];
    const ssize_t got = recv(client.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
        return false;
    }
    if (got > 0) {
        client.input.append(buffer, static_cast<int>(got));
    }
    if (!client.setupDone) {
        // Byte order, pad, version, the authorisation's name and data lengths, pad.
        if (client.input.size() < 12) {
            return true;
        }
        const int needed =
            12 + paddedToFour(read16(client.input, 6)) + paddedToFour(read16(client.input, 8));
        if (client.input.size() < needed) {
            return true;
        }
        client.input.remove(0, needed);
        if (!writeAll(client.fd, setup.constData(), static_cast<size_t>(setup.size())) ||
            afterSetup == AfterSetup::CLOSE) {
            return false;
        }
        client.setupDone = true;
        if (afterSetup == AfterSetup::STOP_READING) {
            client.silent = shutdown(client.fd, SHUT_RD) == 0;
            return client.silent;
        }
    }
    while (client.input.size() >= 4) {
        const int length = 4 * read16(client.input, 2);
        // No BIG-REQUESTS here: a request of length 0 is an error.
        if (length == 0) {
            return false;
        }
        if (client.input.size() < length) {
            break;
        }
        answer(client, client.input.left(length));
        client.input.remove(0, length);
    }
    return true;
}

void FakeXServer::answer(Client& client, const QByteArray& request)
{
    const auto opcode = static_cast<uint8_t>(request[0]);
    ++requestCounts[opcode];
    ++client.sequence;
    std::array<uint8_t, 32> reply{};
    reply[0] = 1;
    put16(reply, 2, client.sequence);
    switch (opcode) {
    case internAtomOpcode:
        put32(reply, 8, nextAtom++);
        break;
    case getPropertyOpcode:
    case getInputFocusOpcode:
        break;
    case queryExtensionOpcode:
        if (request.size() >= 8 && request.mid(8, read16(request, 4)) == "RANDR") {
            reply[8] = 1;
            reply[9] = randrOpcode;
            reply[10] = randrFirstEvent;
            reply[11] = 147;
        }
        break;
    case randrOpcode:
        if (static_cast<uint8_t>(request[1]) != randrQueryVersionMinor) {
            return;
        }
        put32(reply, 8, 1);
        put32(reply, 12, 5);
        break;
    default:
        return;
    }
    writeAll(client.fd, reply.data(), reply.size());
}
