#pragma once

#include "common/OwnedFd.h"

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>

#include <chrono>
#include <deque>
#include <map>
#include <optional>

class QSocketNotifier;

// Runs the stations' shell commands through the command launcher (CommandLauncher) without
// waiting for them. The commands of one station run one at a time, in the order they came;
// those of different stations do not wait for each other. The end of a command is seen when
// its pidfd becomes readable, so the main loop goes on while commands run; a timer runs only
// while a command does.
//
// Lives on the main thread; every method runs there.
class CommandScheduler : public QObject
{
    Q_OBJECT

public:
    struct Command
    {
        // The device's "station_id" value: the queue the command waits in.
        QString station;
        // The command as cut from its configuration line, a trailing line break included.
        QString text;
        // The device's variables; the command gets them upper-cased in its environment.
        QHash<QString, QString> variables;
        // Names the configuration line the command came from (see retainWaiting).
        QString origin;
    };

    // How many commands a station holds waiting besides its running one; more are dropped.
    static constexpr std::size_t maxWaiting = 16;

    // A command still running after `longRunning` is reported once; it is not stopped.
    explicit CommandScheduler(std::chrono::milliseconds longRunning = std::chrono::seconds(60),
                              QObject* parent = nullptr);
    // Running commands are left alone.
    ~CommandScheduler() override;

    // Starts the command at once when its station runs nothing, or queues it behind the
    // station's running one; dropped with a warning when the station's queue is full.
    void submit(Command command);
    // At a reload of the configuration: drops, silently, the waiting commands whose origin is
    // not among `origins`. Running commands are not touched.
    void retainWaiting(const QSet<QString>& origins);
    // At exit: drops every waiting command, each with an Info line. Running commands are
    // neither signalled nor waited for.
    void dropWaitingAtExit();

    bool isRunning(const QString& station) const;
    // Whether no command of any station runs (and so none waits).
    bool isIdle() const { return stations.empty(); }
    int waitingCount(const QString& station) const;

Q_SIGNALS:
    // A command of `station` has ended; the station's next command, if any, has been started.
    void commandEnded(const QString& station);

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    struct Running
    {
        QString text;
        Orvanta::OwnedFd process;            // the command's pidfd
        QSocketNotifier* notifier = nullptr; // a child of the scheduler, on `process`
        int warningTimer = 0;                // 0 once the warning is written
    };
    // A station appears here while it runs a command; one that runs nothing has none waiting.
    struct Station
    {
        std::optional<Running> running;
        std::deque<Command> waiting;
    };

    // Starts the station's waiting commands in turn until one runs; forgets an idle station.
    void startNext(const QString& station);
    std::optional<Running> start(const Command& command);
    void commandFinished(const QString& station);

    const std::chrono::milliseconds longRunning;
    std::map<QString, Station> stations;
};
