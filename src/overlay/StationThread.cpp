#include "overlay/StationThread.h"

#include "common/AlternateSignalStack.h"
#include "common/Logger.h"
#include "overlay/StationDisplay.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <system_error>

#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr char logSource[] = "StationThread";

using Clock = std::chrono::steady_clock;

// A clean stop closes the window with its requests; past this the socket is
// shut down so that a write to a stopped server fails.
constexpr auto cleanStopTimeout = std::chrono::milliseconds(50);
// After the shut-down only a composition in progress can hold the thread.
constexpr auto forcedStopTimeout = std::chrono::milliseconds(250);

// Composing is background work: the main thread, which runs the key
// combinations, comes first. Qt's thread priorities do nothing under Linux's
// default scheduler; a nice value of the thread's own does. The batch policy
// also keeps a station thread that the main thread wakes (every station on
// every tick) from taking the main thread's core at once.
constexpr int compositionNiceIncrement = 5;
constexpr int lowestNice = 19;

void lowerPriority()
{
    const sched_param batch{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &batch);
    const pid_t tid = gettid();
    errno = 0;
    const int current = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
    if (errno == 0) {
        setpriority(PRIO_PROCESS, static_cast<id_t>(tid),
                    std::min(current + compositionNiceIncrement, lowestNice));
    }
}
} // namespace

struct StationThread::Mailbox
{
    explicit Mailbox(int display)
        : displayId(display), wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
    }
    ~Mailbox()
    {
        if (wakeFd >= 0) {
            close(wakeFd);
        }
    }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    // Adds a report and wakes the owner unless it is already woken.
    void report(const Report& report)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        reports.push_back(report);
        if (!wakePending && ownerPresent && wakeFd >= 0) {
            wakePending = true;
            const uint64_t one = 1;
            // Never blocks: the counter is far from full with one write a batch.
            const ssize_t written = write(wakeFd, &one, sizeof(one));
            static_cast<void>(written);
        }
    }

    // Needs `mutex`.
    void shutDownSocket() const
    {
        if (controlFd >= 0) {
            shutdown(controlFd, SHUT_RDWR);
        }
    }

    // Needs `mutex`.
    void closeSocket()
    {
        if (controlFd >= 0) {
            close(controlFd);
        }
        controlFd = -1;
        connecting = false;
    }

    bool waitUntilFinished(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [this] { return finished; });
    }

    const int displayId;
    std::mutex mutex;
    std::condition_variable changed;

    // From the owner.
    bool updateDue = false;
    std::optional<OverlayContent> picture;
    int wantedGeneration = 0;
    bool stopRequested = false;

    // To the owner.
    std::vector<Report> reports;
    bool wakePending = false;
    // Cleared when the owner goes: nothing wakes it after that.
    bool ownerPresent = true;
    const int wakeFd;

    bool finished = false;

    // A duplicate of the connection's socket, owned here, so that the owner can
    // shut it down under `mutex` while it is open, and never afterwards.
    int controlFd = -1;
    bool connecting = false;
    Clock::time_point connectStarted;
};

// Hears the station's display on its thread and passes it on through the mailbox.
class StationThread::Worker : public StationDisplay::Listener
{
public:
    explicit Worker(Mailbox& stationMailbox) : mailbox(stationMailbox) {}

    void socketOpened(int controlFd) override
    {
        const std::lock_guard<std::mutex> lock(mailbox.mutex);
        mailbox.closeSocket();
        mailbox.controlFd = controlFd;
        mailbox.connecting = true;
        mailbox.connectStarted = Clock::now();
        if (mailbox.stopRequested) {
            mailbox.shutDownSocket();
        }
    }
    void connectFinished() override
    {
        const std::lock_guard<std::mutex> lock(mailbox.mutex);
        mailbox.connecting = false;
    }
    void socketClosing() override
    {
        const std::lock_guard<std::mutex> lock(mailbox.mutex);
        mailbox.closeSocket();
    }
    void connectFailed() override { mailbox.report({Report::CONNECT_FAILED, 0, 0, 0}); }
    void connected(uint32_t width, uint32_t height) override
    {
        mailbox.report({Report::CONNECTED, width, height, 0});
    }
    void lost() override { mailbox.report({Report::LOST, 0, 0, 0}); }
    void screenSizeChanged(uint32_t width, uint32_t height) override
    {
        mailbox.report({Report::SCREEN_SIZE_CHANGED, width, height, 0});
    }

private:
    Mailbox& mailbox;
};

namespace {
// A thread that was stopped but had not ended in time, with what it still uses.
struct AbandonedThread
{
    std::thread thread;
    std::function<bool()> hasFinished;
};

std::vector<AbandonedThread>& abandonedThreads()
{
    static std::vector<AbandonedThread> threads;
    return threads;
}
} // namespace

StationThread::StationThread(int displayId, Orvanta::OwnedFd socket)
    : mailbox(std::make_shared<Mailbox>(displayId))
{
    if (mailbox->wakeFd >= 0) {
        wakeNotifier = std::make_unique<QSocketNotifier>(mailbox->wakeFd, QSocketNotifier::Read);
        connect(wakeNotifier.get(), &QSocketNotifier::activated, this,
                &StationThread::reportsWaiting);
    } else {
        SELVANE_LOG(LEVEL_ERROR, "Could not create the wake-up of display :%d: %s", displayId,
                    strerror(errno));
    }
    try {
        // The descriptor is the thread's from here on: a value, not an object of this one.
        thread = std::thread(&StationThread::run, mailbox, socket.get());
        socket.release();
    } catch (const std::system_error&) {
        // At the process's or the system's limit of tasks.
        SELVANE_LOG(LEVEL_ERROR, "Could not start a thread for display :%d", displayId);
    }
}

StationThread::~StationThread()
{
    if (!thread.joinable()) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mailbox->mutex);
        mailbox->stopRequested = true;
        mailbox->ownerPresent = false;
    }
    wakeNotifier.reset();
    mailbox->changed.notify_all();
    if (mailbox->waitUntilFinished(cleanStopTimeout)) {
        thread.join();
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mailbox->mutex);
        mailbox->shutDownSocket();
    }
    if (mailbox->waitUntilFinished(forcedStopTimeout)) {
        thread.join();
        return;
    }
    SELVANE_LOG(LEVEL_WARNING, "The thread of display :%d is still busy; it ends by itself",
                mailbox->displayId);
    std::shared_ptr<Mailbox> stopped = mailbox;
    abandonedThreads().push_back({std::move(thread), [stopped] {
                                      const std::lock_guard<std::mutex> lock(stopped->mutex);
                                      return stopped->finished;
                                  }});
}

void StationThread::joinAbandoned(bool wait)
{
    auto& threads = abandonedThreads();
    for (auto it = threads.begin(); it != threads.end();) {
        if (wait || it->hasFinished()) {
            it->thread.join();
            it = threads.erase(it);
        } else {
            ++it;
        }
    }
}

bool StationThread::hasAbandoned()
{
    return !abandonedThreads().empty();
}

void StationThread::requestUpdate()
{
    {
        const std::lock_guard<std::mutex> lock(mailbox->mutex);
        mailbox->updateDue = true;
    }
    mailbox->changed.notify_one();
}

void StationThread::setWantedGeneration(int generation)
{
    const std::lock_guard<std::mutex> lock(mailbox->mutex);
    mailbox->wantedGeneration = generation;
}

void StationThread::show(const OverlayContent& content)
{
    {
        const std::lock_guard<std::mutex> lock(mailbox->mutex);
        mailbox->picture = content;
    }
    mailbox->changed.notify_one();
}

std::vector<StationThread::Report> StationThread::takeReports()
{
    const std::lock_guard<std::mutex> lock(mailbox->mutex);
    if (mailbox->wakePending) {
        uint64_t count = 0;
        const ssize_t read = ::read(mailbox->wakeFd, &count, sizeof(count));
        static_cast<void>(read);
    }
    mailbox->wakePending = false;
    std::vector<Report> taken;
    taken.swap(mailbox->reports);
    return taken;
}

void StationThread::enforceConnectDeadline()
{
    const std::lock_guard<std::mutex> lock(mailbox->mutex);
    if (mailbox->connecting &&
        Clock::now() - mailbox->connectStarted >= std::chrono::milliseconds(connectTimeoutMs)) {
        // The setup's read fails at once and the attempt is logged as failed.
        mailbox->shutDownSocket();
        mailbox->connecting = false;
    }
}

void StationThread::run(const std::shared_ptr<Mailbox>& mailbox, int socket)
{
    // The crash report runs on it, should this thread overflow its stack.
    const Orvanta::AlternateSignalStack signalStack;
    const std::string name = "station :" + std::to_string(mailbox->displayId);
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    lowerPriority();
    {
        Worker worker(*mailbox);
        StationDisplay display(mailbox->displayId, &worker);
        display.useSocket(Orvanta::OwnedFd(socket));
        for (;;) {
            bool updateDue = false;
            std::optional<OverlayContent> picture;
            {
                std::unique_lock<std::mutex> lock(mailbox->mutex);
                mailbox->changed.wait(lock, [&] {
                    return mailbox->stopRequested || mailbox->updateDue || mailbox->picture;
                });
                if (mailbox->stopRequested) {
                    break;
                }
                updateDue = mailbox->updateDue;
                mailbox->updateDue = false;
                // A picture that was replaced while it waited is not shown.
                if (mailbox->picture && mailbox->picture->generation == mailbox->wantedGeneration) {
                    picture.swap(mailbox->picture);
                }
                mailbox->picture.reset();
            }
            if (updateDue) {
                display.update();
            }
            if (picture) {
                const bool shown = display.show(*picture);
                mailbox->report({Report::PICTURE_DONE, 0, 0, picture->generation, shown});
            }
        }
        // The display closes here, before the thread counts as finished.
    }
    {
        const std::lock_guard<std::mutex> lock(mailbox->mutex);
        mailbox->closeSocket();
        mailbox->finished = true;
    }
    mailbox->changed.notify_all();
}
