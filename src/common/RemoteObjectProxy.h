#pragma once

#include <QDBusAbstractInterface>
#include <QDBusConnection>
#include <QString>

namespace Orvanta {

// A proxy of an object of another program on the bus, whose methods are called
// by name. Every blocking call gives up after callTimeoutMs and then returns
// Qt's NoReply error, which callers treat as any failed call: a hung or stopped
// peer holds the daemon for at most that long.
//
// It is not a QDBusInterface: that one introspects its object when it is made,
// with Qt's own 25 s time-out that setTimeout() does not reach. Calling by name
// needs no introspection.
class RemoteObjectProxy : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    static constexpr int callTimeoutMs = 2000;

    // An empty interface calls the methods without an interface name.
    RemoteObjectProxy(const QString& service, const QString& objectPath, const QString& interface,
                      const QDBusConnection& connection);
};

} // namespace Orvanta
