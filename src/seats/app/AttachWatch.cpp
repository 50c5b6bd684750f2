#include "seats/app/AttachWatch.h"

#include "common/Logger.h"
#include "seats/system/LogindSeats.h"

#include <QPointer>

namespace {
constexpr char logSource[] = "AttachWatch";
} // namespace

AttachWatch::AttachWatch(LogindSeats& logind, AttachRequest request, Finished finished,
                         int reaskAfterMs, int seatTimeoutMs)
    : seats(logind), attach(std::move(request)), done(std::move(finished))
{
    reask.setSingleShot(true);
    reask.setInterval(reaskAfterMs);
    connect(&reask, &QTimer::timeout, this, &AttachWatch::askAgain);
    deadline.setSingleShot(true);
    deadline.setInterval(seatTimeoutMs);
    connect(&deadline, &QTimer::timeout, this, &AttachWatch::timedOut);
}

void AttachWatch::start()
{
    elapsed.start();
    SELVANE_LOG(LEVEL_INFO, "Attaching %s (port %s) to %s for station %d",
                qPrintable(attach.devicePath), qPrintable(attach.port), qPrintable(attach.seat),
                attach.station);
    askLogind();
}

void AttachWatch::askLogind()
{
    QPointer<AttachWatch> self(this);
    seats.attachDevice(attach.seat, attach.port, [self](bool ok, const QString& error) {
        if (self) {
            self->answered(ok, error);
        }
    });
}

void AttachWatch::askAgain()
{
    SELVANE_LOG(LEVEL_INFO, "udev shows no seat for %s after %lld ms: asking logind again",
                qPrintable(attach.devicePath), elapsed.elapsed());
    askLogind();
}

void AttachWatch::answered(bool ok, const QString& error)
{
    if (over) {
        return;
    }
    if (!ok) {
        finish(QStringLiteral("AttachDevice: ") + error);
        return;
    }
    if (!attached) {
        attached = true;
        SELVANE_LOG(LEVEL_INFO, "logind attached %s to %s after %lld ms; waiting for udev",
                    qPrintable(attach.port), qPrintable(attach.seat), elapsed.elapsed());
        reask.start();
        deadline.start();
        seatSeen(seen);
    }
}

void AttachWatch::seatSeen(const QString& seat)
{
    seen = seat;
    if (!over && attached && seat == attach.seat) {
        SELVANE_LOG(LEVEL_INFO, "%s is on %s after %lld ms", qPrintable(attach.devicePath),
                    qPrintable(attach.seat), elapsed.elapsed());
        finish(QString());
    }
}

void AttachWatch::timedOut()
{
    finish(QStringLiteral("ID_SEAT: %1 did not report %2 within %3 s")
               .arg(attach.devicePath, attach.seat, QString::number(deadline.interval() / 1000.0)));
}

void AttachWatch::finish(const QString& failedStep)
{
    over = true;
    reask.stop();
    deadline.stop();
    done(attach.devicePath, failedStep);
}
