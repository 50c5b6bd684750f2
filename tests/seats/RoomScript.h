#pragma once

#include "LogCapture.h"

#include "seats/DaemonDriver.h"
#include "seats/Room.h"
#include "seats/SeatNumbers.h"
#include "seats/SeatsConfig.h"

#include <QMap>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// A room of two seats driven by a script, as logind, udev and the daemon
// would drive the bridge's model, and what the model answered, as text.
//
// The room: seat0 with an x11 greeter on :0, seat1 with one on :1; keyboards
// kbdA, kbdB and mice mouseA, mouseB, each in a USB port of its own; kbdC and
// mouseC are spare devices, kbdC made for kbdB's port, mouseC for mouseB's. Logind's
// rules are kept per port, as logind writes them, and survive "reboot".
//
// Commands (one line each, words separated by blanks):
//   boot                         the room switched on: all four devices plugged in
//   claim DEV DISPLAY TYPE       the daemon's DeviceAssignedAuto
//   claim-by-stranger DEV DISPLAY TYPE   the same from a sender that is not the daemon
//   attached DEV                 logind attached the claimed port; ID_SEAT is set
//   attach-fails DEV STEP...     the attach failed at that step
//   wait MS                      time passes
//   unplug DEV / plug DEV        a device leaves or comes (its port's rule applies)
//   replace OLD NEW              both in one change, as a quick replug looks
//   attach-by-admin DEV SEAT     loginctl attach of the device's port
//   release SEAT                 the rules of that seat's keyboards and mice removed
//   session SEAT TYPE [DISPLAY]  the seat's active session changes ("none" for none)
//   restart-daemon               the daemon started again (SelvaneStarted)
//   reboot                       the machine restarted: the state file is read again
//
// What each command produced: the calls to the daemon ("configureKeyboard(1, 1)"),
// "attach PORT to SEAT" for an accepted claim, and each Warning and Error
// logged ("Warning: ..."); device nodes and ports are written by their short
// names (kbdB, usb1/1-2).
class RoomScript
{
public:
    RoomScript();
    ~RoomScript();

    bool isReady() const { return dir.isValid(); }
    QStringList run(const QString& command);
    QString getStateFile() const { return dir.filePath(QStringLiteral("seats")); }
    const Room& getRoom() const { return *room; }
    const DaemonDriver& getDriver() const { return *driver; }

    static QString pathOf(const QString& device);
    static QString portOf(const QString& device);

private:
    void start();
    SystemSnapshot snapshot() const;
    QStringList updated(const QString& command, const QStringList& words);
    QStringList claim(const QStringList& words, bool fromOwner);
    QStringList render(const DaemonCalls& calls) const;
    QString shorten(QString text) const;

    QTemporaryDir dir;
    LogCapture log;
    SeatsConfig config;
    std::unique_ptr<SeatNumbers> numbers;
    std::unique_ptr<Room> room;
    std::unique_ptr<DaemonDriver> driver;
    QMap<QString, SeatInfo> seats;
    QStringList plugged;
    // Logind's rules: port -> seat.
    QMap<QString, QString> rules;
    // Claims being attached: device -> seat.
    QMap<QString, QString> attaching;
    qint64 now = 1000;
};
