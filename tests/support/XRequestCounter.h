#pragma once

#include "ListeningDisplay.h"

#include "common/OwnedFd.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

// Splits the bytes a client sends to an X server into its requests, as they
// come, in pieces of any size: first the connection setup (byte order 'l' or
// 'B', then a 12-byte header with the lengths of the authorisation's name and
// data, each padded to 4 bytes), then requests of `length` 4-byte units,
// read at offset 2; a length of 0 is a BIG-REQUESTS one, whose 32-bit length
// follows. Only the first bytes of each request are kept, so a request of
// many megabytes costs nothing.
class XRequestStream
{
public:
    // The most of a request's first bytes handed on.
    static constexpr int headBytes = 32;

    // A request's first bytes (all of it when shorter than headBytes), its
    // whole length in bytes, and whether it came in BIG-REQUESTS form (its
    // fields then lie 4 bytes further on); little-endian or not.
    using RequestHandler = std::function<void(const QByteArray& head, uint64_t length,
                                              bool bigRequest, bool littleEndian)>;

    explicit XRequestStream(RequestHandler handler) : onRequest(std::move(handler)) {}

    // False once the stream cannot be a client's: an unknown byte order, or a
    // BIG-REQUESTS length shorter than its header.
    bool feed(const char* data, size_t size);

private:
    // How many of the current unit's first bytes tell its length.
    int bytesForLength() const;
    // Reads the current unit's length from its head; false when it cannot be one.
    bool findLength();

    RequestHandler onRequest;
    bool setupDone = false;
    bool littleEndian = true;
    QByteArray head;
    // The current unit's whole length in bytes; 0 while it is not known.
    uint64_t length = 0;
    bool bigRequest = false;
    // The bytes of the current unit past its head still to come.
    uint64_t skip = 0;
};

// A proxy X display for tests that counts the PutImage requests its clients
// send: it listens on a display number of its own (see ListeningDisplay) and
// forwards every byte of each client connection both ways to a real server's
// display, one server connection per client, on a thread of its own.
//
// The methods may be called from any thread.
class XRequestCounter
{
public:
    static constexpr uint8_t putImageOpcode = 72;

    struct PutImage
    {
        uint32_t drawable = 0;
        int width = 0;
        int height = 0;
        int dstX = 0;
        int dstY = 0;
        // The whole request's bytes.
        uint64_t bytes = 0;
    };

    explicit XRequestCounter(int serverDisplay);
    ~XRequestCounter();

    XRequestCounter(const XRequestCounter&) = delete;
    XRequestCounter& operator=(const XRequestCounter&) = delete;

    // Listens on a free display number; false on failure.
    bool start();
    int number() const { return display.number(); }
    QString displayName() const { return QStringLiteral(":%1").arg(number()); }

    // The PutImage requests since the start or the last reset(), over all connections.
    int putImageCount() const;
    uint64_t putImageBytes() const;
    QList<PutImage> putImages() const;
    void reset();
    // Client connections open now.
    int connections() const;

private:
    // One client's connection and the server connection that goes with it.
    struct Link
    {
        Link(Orvanta::OwnedFd clientFd, Orvanta::OwnedFd serverFd,
             XRequestStream::RequestHandler handler)
            : client(std::move(clientFd)), server(std::move(serverFd)), requests(std::move(handler))
        {
        }
        Orvanta::OwnedFd client;
        Orvanta::OwnedFd server;
        XRequestStream requests;
        QByteArray toServer;
        QByteArray toClient;
        bool clientEnded = false;
        bool serverEnded = false;
    };

    void serve();
    void accept();
    // Moves what the side has to the other; false when the link is to end.
    bool forward(Link& link, bool fromClient);
    // Writes what is waiting for the descriptor; false on an error.
    static bool flush(int fd, QByteArray& waiting);
    void count(const QByteArray& head, uint64_t length, bool bigRequest, bool littleEndian);

    const int serverDisplay;
    ListeningDisplay display;
    Orvanta::OwnedFd stop;
    std::thread thread;
    // Touched only by the thread while it runs.
    std::list<Link> links;

    mutable std::mutex mutex;
    QList<PutImage> puts;
    uint64_t bytes = 0;
    int linkCount = 0;
};
