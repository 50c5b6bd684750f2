#include "sequences/CommandScheduler.h"

#include "common/Logger.h"
#include "sequences/CommandEnvironment.h"
#include "sequences/CommandLauncher.h"

#include <QSocketNotifier>
#include <QTimerEvent>

#include <algorithm>

namespace {
constexpr char logSource[] = "CommandScheduler";

// The lines about starting a command keep the source and function they have always had.
void logExecution(Orvanta::Logger::Level level, const QString& message)
{
    Orvanta::Logger::write(level, QStringLiteral("SystemCommandAction"),
                           QStringLiteral("executeCommand"), __LINE__, message);
}
} // namespace

CommandScheduler::CommandScheduler(std::chrono::milliseconds longRunningAfter, QObject* parent)
    : QObject(parent), longRunning(longRunningAfter)
{
}

CommandScheduler::~CommandScheduler()
{
    // Each notifier goes before its pidfd is closed.
    for (auto& entry : stations) {
        if (entry.second.running) {
            delete entry.second.running->notifier;
        }
    }
}

void CommandScheduler::submit(Command command)
{
    const QString station = command.station;
    Station& state = stations[station];
    if (state.running && state.waiting.size() >= maxWaiting) {
        SELVANE_LOG(LEVEL_WARNING, "Dropping command of station " + station + ": " +
                                       QString::number(maxWaiting) +
                                       " commands are waiting already");
        return;
    }
    state.waiting.push_back(std::move(command));
    if (!state.running) {
        startNext(station);
    }
}

void CommandScheduler::retainWaiting(const QSet<QString>& origins)
{
    for (auto& entry : stations) {
        std::deque<Command>& waiting = entry.second.waiting;
        waiting.erase(std::remove_if(waiting.begin(), waiting.end(),
                                     [&](const Command& command) {
                                         return !origins.contains(command.origin);
                                     }),
                      waiting.end());
    }
}

void CommandScheduler::dropWaitingAtExit()
{
    for (auto& entry : stations) {
        for (const Command& command : entry.second.waiting) {
            SELVANE_LOG(LEVEL_INFO,
                        "Dropping command of station " + entry.first + " at exit: " + command.text);
        }
        entry.second.waiting.clear();
    }
}

bool CommandScheduler::isRunning(const QString& station) const
{
    const auto found = stations.find(station);
    return found != stations.end() && found->second.running.has_value();
}

int CommandScheduler::waitingCount(const QString& station) const
{
    const auto found = stations.find(station);
    return found == stations.end() ? 0 : static_cast<int>(found->second.waiting.size());
}

void CommandScheduler::timerEvent(QTimerEvent* event)
{
    for (auto& entry : stations) {
        std::optional<Running>& running = entry.second.running;
        if (running && running->warningTimer == event->timerId()) {
            killTimer(running->warningTimer);
            running->warningTimer = 0;
            const double seconds = std::chrono::duration<double>(longRunning).count();
            SELVANE_LOG(LEVEL_WARNING, "Command of station " + entry.first +
                                           " still running after " + QString::number(seconds) +
                                           " s: " + running->text);
            return;
        }
    }
    QObject::timerEvent(event);
}

void CommandScheduler::startNext(const QString& station)
{
    const auto found = stations.find(station);
    if (found == stations.end()) {
        return;
    }
    Station& state = found->second;
    while (!state.running && !state.waiting.empty()) {
        Command command = std::move(state.waiting.front());
        state.waiting.pop_front();
        state.running = start(command);
        if (state.running) {
            connect(state.running->notifier, &QSocketNotifier::activated, this,
                    [this, station] { commandFinished(station); });
        }
    }
    if (!state.running) {
        stations.erase(found);
    }
}

std::optional<CommandScheduler::Running> CommandScheduler::start(const Command& command)
{
    logExecution(Orvanta::Logger::LEVEL_INFO, "Executing command: " + command.text);
    // The command and the variables go to the shell byte for byte (Latin-1), the way the
    // configuration file was read.
    Orvanta::OwnedFd process = CommandLauncher::launch(
        command.text.toLatin1(), CommandEnvironment::build(command.variables));
    if (!process.isValid()) {
        logExecution(Orvanta::Logger::LEVEL_ERROR, "Error executing command: " + command.text);
        return std::nullopt;
    }
    Running running;
    running.text = command.text;
    running.notifier = new QSocketNotifier(process.get(), QSocketNotifier::Read, this);
    running.process = std::move(process);
    running.warningTimer = startTimer(longRunning);
    return running;
}

void CommandScheduler::commandFinished(const QString& station)
{
    const auto found = stations.find(station);
    Q_ASSERT(found != stations.end() && found->second.running);
    Running& running = *found->second.running;
    // The notifier is in the middle of this call: it goes once the call has returned, and it
    // watches nothing from now on, so the pidfd can close at once.
    running.notifier->setEnabled(false);
    running.notifier->deleteLater();
    if (running.warningTimer != 0) {
        killTimer(running.warningTimer);
    }
    found->second.running.reset();
    startNext(station);
    emit commandEnded(station);
}
