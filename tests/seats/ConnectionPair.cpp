#include "ConnectionPair.h"

namespace {

// How many pairs the process has made; it numbers their names.
int pairsMade = 0;

} // namespace

ConnectionPair::ConnectionPair()
    : servicesName(QStringLiteral("services%1").arg(++pairsMade)),
      testedName(QStringLiteral("tested%1").arg(pairsMade))
{
    const QString address = QString::fromLocal8Bit(qgetenv("DBUS_SESSION_BUS_ADDRESS"));
    QDBusConnection::connectToBus(address, servicesName);
    QDBusConnection::connectToBus(address, testedName);
}

ConnectionPair::~ConnectionPair()
{
    QDBusConnection::disconnectFromBus(servicesName);
    QDBusConnection::disconnectFromBus(testedName);
}

bool ConnectionPair::isConnected() const
{
    return services().isConnected() && tested().isConnected();
}
