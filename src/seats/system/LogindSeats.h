#pragma once

#include "seats/system/SystemSnapshot.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QVector>

#include <functional>
#include <memory>

// logind's seats as plain values (org.freedesktop.login1 on the connection
// given in: the system bus in the program, a private bus in the tests): every
// seat with its CanGraphical, and of its active session the Display, Type,
// Class and user's uid.
//
// The seats are read again, as a whole, on SeatNew, SeatRemoved, SessionNew,
// SessionRemoved, on a PropertiesChanged of a seat or session that touches
// those values, and when logind (re)appears on the bus; changed() follows a
// reading that found something new. One reading at a time: a change during a
// reading makes one more reading after it.
//
// Nothing here waits for logind: every call is sent asynchronously with a
// time-out, and its answer is handled by the event loop. A seat or session
// whose properties cannot be read keeps what the last reading knew of it.
// Lives on one thread (the main thread in the program); all methods, signals
// and callbacks belong to it.
class LogindSeats : public QObject
{
    Q_OBJECT

public:
    static constexpr int defaultCallTimeoutMs = 5000;
    // logind writes a rule file and has udev re-evaluate the device before it
    // answers AttachDevice.
    static constexpr int defaultAttachTimeoutMs = 20000;

    // ok false with the bus error ("name: message") as error.
    using AttachDone = std::function<void(bool ok, const QString& error)>;

    explicit LogindSeats(const QDBusConnection& connection, QObject* parent = nullptr,
                         int callTimeoutMs = defaultCallTimeoutMs,
                         int attachTimeoutMs = defaultAttachTimeoutMs);

    // Subscribes to logind's signals and starts the first reading; changed()
    // comes when it is done, even when it found no seat. Does not wait for
    // logind; Qt asks the bus daemon once for the owner of logind's name when
    // the signals are first followed.
    void start();

    // The seats of the last reading, sorted by name; empty before the first.
    QVector<SeatInfo> snapshotSeats() const { return seats; }
    // True once a reading has finished, whether or not logind answered it.
    bool hasRead() const { return readOnce; }

    // Manager.AttachDevice(seat, syspath, interactive=false): logind writes a
    // persistent rule that gives the device (and what is plugged in below it)
    // the seat. `done` is called exactly once, from the event loop, unless
    // this object is deleted first.
    void attachDevice(const QString& seat, const QString& syspath, AttachDone done);

Q_SIGNALS:
    void changed();

private Q_SLOTS:
    void onSeatsOrSessionsChanged();
    void onPropertiesChanged(const QDBusMessage& message);

private:
    struct Reading;

    void requestReading();
    // The answers' handlers: the list of seats, a seat's and a session's
    // properties, and AttachDevice.
    void seatsListed(const QDBusMessage& reply);
    void seatRead(const std::shared_ptr<Reading>& found, int index, const QDBusMessage& reply);
    void sessionRead(const std::shared_ptr<Reading>& found, int index, const QString& path,
                     const QDBusMessage& reply);
    static void attachAnswered(const QString& seat, const QString& syspath,
                               const QDBusMessage& reply, const AttachDone& done);
    void seatDone(const std::shared_ptr<Reading>& found);
    void finishReading(const QVector<SeatInfo>* found);
    SeatInfo previous(const QString& name) const;

    QDBusConnection connection;
    const int callTimeoutMs;
    const int attachTimeoutMs;
    QVector<SeatInfo> seats;
    bool readOnce = false;
    bool reading = false;
    bool readAgain = false;
};
