#pragma once

#include "common/OwnedFd.h"
#include "overlay/OverlayContent.h"

#include <QObject>
#include <QSocketNotifier>

#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

// Runs one station's StationDisplay on a thread of its own, so that a server
// that stops reading, a slow composition or a lost connection holds that
// station alone. The owner (a DisplayConfiguration, on the main thread) asks
// for periodic steps and pictures; the thread reports back what happened.
//
// Work goes both ways through a small mailbox guarded by a std::mutex: the
// latest wanted picture, whether a step is due, whether to stop, and the
// reports for the owner. A step or a picture asked for while the thread is
// busy is taken once it is free; a newer picture replaces one not yet taken.
// Reports wake the owner's thread through an eventfd, whose write and read
// also order the two threads for ThreadSanitizer; nothing of Qt's crosses.
//
// Owned by its DisplayConfiguration; the object belongs to the owner's (main)
// thread, where every method but run() is called. run() is the station's
// thread: it owns the StationDisplay. The mailbox is shared by both and lives
// until the later of them lets go: a thread abandoned at its stop keeps it.
class StationThread : public QObject
{
    Q_OBJECT

public:
    struct Report
    {
        enum Kind : int
        {
            CONNECTED,
            // An attempt to connect to the display failed.
            CONNECT_FAILED,
            LOST,
            SCREEN_SIZE_CHANGED,
            PICTURE_DONE
        };
        Kind kind;
        uint32_t width = 0;
        uint32_t height = 0;
        int generation = 0;
        // PICTURE_DONE: the picture is on the screen now.
        bool shown = false;
    };

    // The longest a connection may take to be set up before its socket is shut down.
    static constexpr int connectTimeoutMs = 2000;

    // Starts the thread; the display is opened by the first requested update,
    // on `socket` when that is connected to the display already. When no
    // thread can be started, that is logged and isRunning() is false.
    explicit StationThread(int displayId, Orvanta::OwnedFd socket = {});
    // Stops the thread: it closes its display when it can; a thread stuck on
    // its server gets its socket shut down. A thread still composing then is
    // left to end by itself and joined later (joinAbandoned()).
    ~StationThread() override;

    StationThread(const StationThread&) = delete;
    StationThread& operator=(const StationThread&) = delete;

    bool isRunning() const { return thread.joinable(); }

    // Asks for one periodic step of the display.
    void requestUpdate();
    // Only pictures of this generation may still be shown.
    void setWantedGeneration(int generation);
    // Shows `content` once composed, unless a newer generation is wanted by then.
    void show(const OverlayContent& content);
    // The reports since the last call, oldest first.
    std::vector<Report> takeReports();
    // Shuts the socket down when the server has not finished the X setup
    // within connectTimeoutMs; called on every periodic step of the owner.
    void enforceConnectDeadline();

    // Joins the threads that did not end in time when they were stopped;
    // without `wait`, only those that have ended by now. Main thread only.
    static void joinAbandoned(bool wait);
    // Whether a thread that did not end in time is still to be joined. Main thread only.
    static bool hasAbandoned();

Q_SIGNALS:
    // Reports are waiting; takeReports() gets them.
    void reportsWaiting();

private:
    struct Mailbox;
    class Worker;

    static void run(const std::shared_ptr<Mailbox>& mailbox, int socket);

    std::shared_ptr<Mailbox> mailbox;
    std::unique_ptr<QSocketNotifier> wakeNotifier;
    std::thread thread;
};
