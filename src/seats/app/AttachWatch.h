#pragma once

#include "seats/DaemonDriver.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

class LogindSeats;

// One claimed device's way to its seat: logind's AttachDevice on its port,
// then the wait until udev shows the seat on the device's event node. udev
// may apply a new rule only after it has noticed the rules directory change,
// so AttachDevice is asked once more when the seat has not shown
// reaskAfterMs after logind's answer; seatTimeoutMs after that answer the
// attach has failed. udev may show the seat before logind's answer arrives,
// so the seat last seen counts once logind has answered. Each step is logged
// at Info level; the outcome is told once through `finished`, with the failed
// step, which the caller logs.
//
// Owned by the bridge, one per claim being attached; main thread only.
class AttachWatch : public QObject
{
    Q_OBJECT

public:
    static constexpr int defaultReaskAfterMs = 3000;
    static constexpr int defaultSeatTimeoutMs = 10000;

    // `failedStep` is empty on success.
    using Finished = std::function<void(const QString& devicePath, const QString& failedStep)>;

    AttachWatch(LogindSeats& logind, AttachRequest request, Finished finished,
                int reaskAfterMs = defaultReaskAfterMs, int seatTimeoutMs = defaultSeatTimeoutMs);

    void start();
    // The device's ID_SEAT as the room shows it now.
    void seatSeen(const QString& seat);
    const AttachRequest& getRequest() const { return attach; }

private:
    void askLogind();
    void askAgain();
    void answered(bool ok, const QString& error);
    void timedOut();
    void finish(const QString& failedStep);

    LogindSeats& seats;
    AttachRequest attach;
    Finished done;
    QTimer reask;
    QTimer deadline;
    QElapsedTimer elapsed;
    QString seen;
    bool attached = false;
    bool over = false;
};
