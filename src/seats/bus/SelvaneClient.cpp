#include "seats/bus/SelvaneClient.h"

#include "common/Logger.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>

namespace {
constexpr char logSource[] = "SelvaneClient";
constexpr char objectPath[] = "/";
constexpr char interfaceName[] = "com.orvanta.selvane.DBusInterface";
// The daemon answers at once: a call that takes longer is logged as failed.
constexpr int callTimeoutMs = 5000;
} // namespace

SelvaneClient::SelvaneClient(QDBusConnection connection) : bus(std::move(connection)) {}

void SelvaneClient::start()
{
    auto* watcher = new QDBusServiceWatcher(QString::fromLatin1(serviceName), bus,
                                            QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(
        watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
        [this](const QString&, const QString&, const QString& newOwner) { setOwner(newOwner); });
    // The owner before the watcher's first notice; a notice that came in
    // between is newer, and wins.
    const QDBusMessage ask = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetNameOwner"));
    auto* pending = new QDBusPendingCallWatcher(
        bus.asyncCall(QDBusMessage(ask) << QString::fromLatin1(serviceName), callTimeoutMs), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this,
            [this](QDBusPendingCallWatcher* call) {
                const QDBusPendingReply<QString> reply = *call;
                if (reply.isValid() && owner.isEmpty()) {
                    setOwner(reply.value());
                }
                call->deleteLater();
            });
}

void SelvaneClient::setOwner(const QString& newOwner)
{
    if (newOwner == owner) {
        return;
    }
    owner = newOwner;
    emit ownerChanged(owner);
}

void SelvaneClient::call(const QString& method, const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(
        QString::fromLatin1(serviceName), QString::fromLatin1(objectPath),
        QString::fromLatin1(interfaceName), method);
    message.setArguments(arguments);
    auto* pending = new QDBusPendingCallWatcher(bus.asyncCall(message, callTimeoutMs), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this,
            [method](QDBusPendingCallWatcher* call) {
                if (call->isError()) {
                    logFailure(method, call->error().message());
                }
                call->deleteLater();
            });
}

void SelvaneClient::logFailure(const QString& method, const QString& error)
{
    SELVANE_LOG(LEVEL_WARNING, "The daemon's %s failed: %s", qPrintable(method), qPrintable(error));
}
