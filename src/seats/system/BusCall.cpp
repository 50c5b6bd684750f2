#include "seats/system/BusCall.h"

#include <QDBusPendingCallWatcher>
#include <QObject>

void sendBusCall(const QDBusConnection& connection, const QDBusMessage& call, int timeoutMs,
                 QObject* context, std::function<void(const QDBusMessage&)> answered)
{
    // The watcher belongs to the context, so a context deleted first takes
    // the watcher, and the connection, with it.
    auto* watcher = new QDBusPendingCallWatcher(connection.asyncCall(call, timeoutMs), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context,
                     [answered = std::move(answered)](QDBusPendingCallWatcher* finished) {
                         finished->deleteLater();
                         answered(finished->reply());
                     });
}

QString busErrorText(const QDBusMessage& reply)
{
    return reply.errorName() + QStringLiteral(": ") + reply.errorMessage();
}
