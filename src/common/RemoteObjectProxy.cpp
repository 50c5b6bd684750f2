#include "common/RemoteObjectProxy.h"

namespace Orvanta {

RemoteObjectProxy::RemoteObjectProxy(const QString& service, const QString& objectPath,
                                     const QString& interface, const QDBusConnection& connection)
    : QDBusAbstractInterface(service, objectPath,
                             interface.isEmpty() ? nullptr : interface.toLatin1().constData(),
                             connection, nullptr)
{
    setTimeout(callTimeoutMs);
}

} // namespace Orvanta
