#pragma once

#include "seats/DaemonDriver.h"
#include "seats/Room.h"
#include "seats/SeatNumbers.h"
#include "seats/SeatsConfig.h"
#include "seats/app/AttachWatch.h"
#include "seats/app/SessionLocales.h"
#include "seats/bus/PlatformBus.h"
#include "seats/bus/PlatformRole.h"
#include "seats/bus/SelvaneClient.h"
#include "seats/system/AccountLocale.h"
#include "seats/system/LogindSeats.h"
#include "seats/system/UdevInputDevices.h"

#include <QDBusConnection>
#include <QElapsedTimer>
#include <QMap>
#include <QObject>
#include <QTimer>

#include <memory>

// The bridge between systemd-logind and the daemon: it plays the platform's
// part on the bus it shares with the daemon, with logind and udev as its
// sources of truth. Every change that logind or udev report is read into the
// room, and the calls that bring the daemon in line with it are sent; a claim
// from the daemon attaches the device's port to the station's seat and then
// tells the daemon the device's station. Nothing here waits: the buses'
// answers and udev's messages come through the event loop.
//
// Owned by main(); main thread only.
class SeatsBridge : public QObject, public PlatformRole
{
    Q_OBJECT

public:
    struct Files
    {
        // The stations' numbers (/var/lib/orvanta/seats).
        QString stateFile;
        // The room's settings (/etc/orvanta/seats.conf).
        QString configFile;
    };

    SeatsBridge(const Files& files, QDBusConnection systemBus, QDBusConnection sharedBus);
    ~SeatsBridge() override;

    // Reads the files, starts the sources and takes the platform's names;
    // false, logged, when the names or udev cannot be had.
    bool start();

    // PlatformRole
    int countDevices(DeviceCount which) const override;
    QString stationTag(const QString& tag) const override;
    void localeForDisplay(int displayId, std::function<void(const QString&)> answer) override;
    void selvaneStarted(const QString& sender) override;
    void deviceAssigned(const QString& sender, const QString& devicePath, int displayId,
                        const QString& deviceKind) override;

private:
    qint64 now() const { return clock.elapsed(); }
    // Reads logind's and udev's view into the room and sends what changed.
    void refresh();
    void send(const DaemonCalls& calls);
    void attachFinished(const QString& devicePath, const QString& failedStep);
    void scheduleRetry();

    SeatNumbers seatNumbers;
    SeatsConfig seatsConfig;
    Room room;
    DaemonDriver driver;
    QElapsedTimer clock;
    LogindSeats logind;
    UdevInputDevices udev;
    AccountLocale accountLocale;
    SessionLocales sessionLocales;
    SelvaneClient selvane;
    PlatformBus platformBus;
    QMap<QString, AttachWatch*> attaching;
    QTimer retryTimer;
};
