#pragma once

#include <QDBusConnection>
#include <QString>

// Two connections of a test's own to its private session bus
// (DBUS_SESSION_BUS_ADDRESS): one for the fake services, one for the code
// under test, so that each asks the other over the bus as it would across
// processes. Every pair has names of its own, so that each test function
// starts on fresh connections; both are disconnected when it is destroyed.
class ConnectionPair
{
public:
    ConnectionPair();
    ~ConnectionPair();

    ConnectionPair(const ConnectionPair&) = delete;
    ConnectionPair& operator=(const ConnectionPair&) = delete;

    // Whether both connections were made.
    bool isConnected() const;

    QDBusConnection services() const { return QDBusConnection(servicesName); }
    QDBusConnection tested() const { return QDBusConnection(testedName); }

private:
    const QString servicesName;
    const QString testedName;
};
