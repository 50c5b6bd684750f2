#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QVariantList>

// The seats bridge's calls to the daemon ("com.orvanta.selvane" at "/",
// interface "com.orvanta.selvane.DBusInterface") and who owns that name.
// Calls are sent without waiting for their answers, in the order given, which
// the bus keeps; a failed one is logged with its method. The owner is
// followed from the bus's own notices, so that a claim can be checked against
// it without a call.
//
// Owned by the bridge's main object; main thread only.
class SelvaneClient : public QObject
{
    Q_OBJECT

public:
    static constexpr char serviceName[] = "com.orvanta.selvane";

    explicit SelvaneClient(QDBusConnection connection);

    // Starts following the name's owner.
    void start();
    // The unique name that owns "com.orvanta.selvane"; empty while none does.
    QString getOwner() const { return owner; }
    // Sends `method` with `arguments` to the daemon.
    void call(const QString& method, const QVariantList& arguments);

Q_SIGNALS:
    // The name got a new owner (a daemon started) or lost it (empty).
    void ownerChanged(const QString& owner);

private:
    void setOwner(const QString& newOwner);
    static void logFailure(const QString& method, const QString& error);

    QDBusConnection bus;
    QString owner;
};
