#include "seats/app/SeatsBridge.h"

#include "common/Logger.h"

namespace {
constexpr char logSource[] = "SeatsBridge";
} // namespace

SeatsBridge::SeatsBridge(const Files& files, QDBusConnection systemBus, QDBusConnection sharedBus)
    : seatNumbers(files.stateFile), seatsConfig(files.configFile), room(seatNumbers, seatsConfig),
      logind(systemBus), accountLocale(systemBus), sessionLocales(accountLocale),
      selvane(sharedBus), platformBus(sharedBus, *this)
{
    clock.start();
    retryTimer.setSingleShot(true);
    connect(&retryTimer, &QTimer::timeout, this, &SeatsBridge::refresh);
    connect(&logind, &LogindSeats::changed, this, &SeatsBridge::refresh);
    connect(&udev, &UdevInputDevices::changed, this, &SeatsBridge::refresh);
}

SeatsBridge::~SeatsBridge()
{
    qDeleteAll(attaching);
}

bool SeatsBridge::start()
{
    seatNumbers.load();
    seatsConfig.load();
    if (!udev.isValid() || !udev.start()) {
        SELVANE_LOG(LEVEL_ERROR, "Cannot read udev's devices");
        return false;
    }
    if (!platformBus.start()) {
        SELVANE_LOG(LEVEL_ERROR, "Cannot play the platform on the shared bus: %s",
                    qPrintable(platformBus.lastError()));
        return false;
    }
    sessionLocales.start();
    selvane.start();
    logind.start();
    return true;
}

void SeatsBridge::refresh()
{
    SystemSnapshot snapshot;
    snapshot.seats = logind.snapshotSeats();
    snapshot.inputDevices = udev.snapshotInputDevices();
    snapshot.graphicsCards = udev.snapshotGraphicsCards();
    room.update(snapshot);
    if (seatNumbers.isChanged()) {
        seatNumbers.save();
    }
    for (const Station& station : room.getStations()) {
        if (station.sessionUid >= 0) {
            sessionLocales.want(station.sessionUid);
        }
    }
    // Attaches under way learn whether udev shows their seat yet.
    for (AttachWatch* watch : QList<AttachWatch*>(attaching.values())) {
        if (const RoomDevice* device = room.findDevice(watch->getRequest().devicePath)) {
            watch->seatSeen(device->seat);
        }
    }
    // Nothing is sent before logind was read once: the daemon would be told
    // of devices whose stations are not known yet.
    if (logind.hasRead()) {
        send(driver.reconcile(room, now()));
    }
    scheduleRetry();
}

void SeatsBridge::send(const DaemonCalls& calls)
{
    for (const DaemonCall& call : calls) {
        SELVANE_LOG(LEVEL_INFO, "Telling the daemon %s", qPrintable(call.toString()));
        selvane.call(call.getMethodName(), call.arguments);
    }
}

void SeatsBridge::scheduleRetry()
{
    const std::optional<qint64> due = driver.nextRetryDue();
    if (!due) {
        retryTimer.stop();
        return;
    }
    retryTimer.start(static_cast<int>(qMax<qint64>(0, *due - now())));
}

int SeatsBridge::countDevices(DeviceCount which) const
{
    const DeviceCounts counts = room.getCounts();
    switch (which) {
    case DeviceCount::ASSIGNED_KEYBOARDS:
        return counts.assignedKeyboards;
    case DeviceCount::UNASSIGNED_KEYBOARDS:
        return counts.unassignedKeyboards;
    case DeviceCount::ASSIGNED_MICE:
        return counts.assignedMice;
    case DeviceCount::UNASSIGNED_MICE:
        return counts.unassignedMice;
    }
    return 0;
}

QString SeatsBridge::stationTag(const QString& tag) const
{
    return seatsConfig.tag(tag);
}

void SeatsBridge::localeForDisplay(int displayId, std::function<void(const QString&)> answer)
{
    const Station* station = room.findStationOnDisplay(displayId);
    answer(sessionLocales.localeOf(station ? station->sessionUid : -1));
}

void SeatsBridge::selvaneStarted(const QString& sender)
{
    if (sender != selvane.getOwner()) {
        SELVANE_LOG(LEVEL_WARNING, "Ignoring SelvaneStarted from %s, which is not the daemon",
                    qPrintable(sender));
        return;
    }
    SELVANE_LOG(LEVEL_INFO, "The daemon started: telling it the whole room again");
    send(driver.resendAll(room, now()));
    scheduleRetry();
}

void SeatsBridge::deviceAssigned(const QString& sender, const QString& devicePath, int displayId,
                                 const QString& deviceKind)
{
    const Claim claim{devicePath, displayId, deviceKind};
    const ClaimOutcome outcome =
        driver.claim(room, claim, !sender.isEmpty() && sender == selvane.getOwner(), now());
    send(outcome.calls);
    if (!outcome.accepted || attaching.contains(devicePath)) {
        return;
    }
    auto* watch = new AttachWatch(logind, outcome.attach,
                                  [this](const QString& path, const QString& failedStep) {
                                      attachFinished(path, failedStep);
                                  });
    attaching.insert(devicePath, watch);
    watch->start();
}

void SeatsBridge::attachFinished(const QString& devicePath, const QString& failedStep)
{
    if (AttachWatch* watch = attaching.take(devicePath)) {
        watch->deleteLater();
    }
    if (failedStep.isEmpty()) {
        send(driver.attachSucceeded(room, devicePath, now()));
    } else {
        send(driver.attachFailed(room, devicePath, failedStep, now()));
    }
    scheduleRetry();
}
