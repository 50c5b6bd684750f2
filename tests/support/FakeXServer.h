#pragma once

#include "ListeningDisplay.h"

#include <QByteArray>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <sys/types.h>
#include <thread>
#include <vector>

// An X server of the test's own, for the hostile servers a real one cannot
// play: it listens on a display's abstract socket ("\0/tmp/.X11-unix/XN",
// where a client looks first), answers every connection's setup request with
// the bytes it was given, however wrong, and then the few requests a client
// of one window waits for (InternAtom, QueryExtension, GetProperty,
// GetInputFocus) with plain replies; it announces RANDR and no other
// extension. It counts the requests by major opcode and can send every
// client a RandR screen change. A lock file /tmp/.XN-lock keeps other test
// servers off its number.
//
// Serves on a thread of its own; the methods may be called from any thread.
class FakeXServer
{
public:
    // RANDR's numbers as this server announces them.
    static constexpr uint8_t randrOpcode = 140;
    static constexpr uint8_t randrFirstEvent = 89;

    // Core requests a test looks for.
    static constexpr uint8_t createWindowOpcode = 1;
    static constexpr uint8_t mapWindowOpcode = 8;
    static constexpr uint8_t unmapWindowOpcode = 10;
    static constexpr uint8_t putImageOpcode = 72;

    // What becomes of a connection once its setup reply is sent.
    enum class AfterSetup
    {
        SERVE,
        // The connection ends.
        CLOSE,
        // The connection stays open but is never read again: every write of
        // the client fails with EPIPE (and raises SIGPIPE unless ignored).
        STOP_READING,
    };

    // `setupReply` is sent whole for each setup request.
    explicit FakeXServer(QByteArray setupReply, AfterSetup afterSetup = AfterSetup::SERVE);
    ~FakeXServer();

    FakeXServer(const FakeXServer&) = delete;
    FakeXServer& operator=(const FakeXServer&) = delete;

    // Listens on a free display number; with `listenerUid`, the socket is
    // made by a thread of that effective user id, whose credentials are what
    // a client reads as its peer's (only root can do that). False on failure.
    bool start(std::optional<uid_t> listenerUid = std::nullopt);
    int number() const { return display.number(); }

    // A RandR screen change of this size to every client past its setup.
    void sendScreenChange(uint16_t width, uint16_t height);
    // Requests with this major opcode received so far, over all connections.
    int requests(uint8_t opcode) const { return requestCounts[opcode].load(); }
    // Connections accepted so far.
    int connections() const { return connectionCount.load(); }

private:
    struct Client
    {
        int fd;
        QByteArray input;
        bool setupDone = false;
        // Shut for reading: left out of the poll, kept open.
        bool silent = false;
        uint16_t sequence = 0;
    };

    void serve();
    // Handles what has come in; false when the connection is to end.
    bool handleInput(Client& client);
    void answer(Client& client, const QByteArray& request);

    const QByteArray setup;
    const AfterSetup afterSetup;
    ListeningDisplay display;
    int stopFd = -1;
    std::thread thread;
    std::mutex mutex;
    std::vector<Client> clients;
    uint32_t nextAtom = 1000;
    std::array<std::atomic<int>, 256> requestCounts{};
    std::atomic<int> connectionCount{0};
};
