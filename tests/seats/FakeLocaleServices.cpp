#include "FakeLocaleServices.h"

namespace {
QString userPath(qlonglong uid)
{
    return QStringLiteral("/org/freedesktop/Accounts/User%1").arg(uid);
}
} // namespace

QDBusObjectPath FakeAccounts::FindUserById(qlonglong uid)
{
    asked.append(uid);
    if (hung) {
        setDelayedReply(true);
        held.append(message());
    } else if (!known.contains(uid)) {
        sendErrorReply(QStringLiteral("org.freedesktop.Accounts.Error.Failed"),
                       QStringLiteral("Failed to look up user with uid %1.").arg(uid));
    }
    return QDBusObjectPath(userPath(uid));
}

FakeLocaleServices::FakeLocaleServices(const QDBusConnection& bus) : connection(bus) {}

bool FakeLocaleServices::startAccounts()
{
    return connection.registerObject(QStringLiteral("/org/freedesktop/Accounts"), &accounts,
                                     QDBusConnection::ExportAllSlots) &&
           connection.registerService(QStringLiteral("org.freedesktop.Accounts"));
}

bool FakeLocaleServices::addUser(qlonglong uid, const QString& language)
{
    auto user = std::make_unique<FakeUser>();
    user->language = language;
    if (!connection.registerObject(userPath(uid), user.get(),
                                   QDBusConnection::ExportAllProperties)) {
        return false;
    }
    accounts.known.append(uid);
    users.push_back(std::move(user));
    return true;
}

bool FakeLocaleServices::startLocaled(const QStringList& locale)
{
    localed.locale = locale;
    return connection.registerObject(QStringLiteral("/org/freedesktop/locale1"), &localed,
                                     QDBusConnection::ExportAllProperties) &&
           connection.registerService(QStringLiteral("org.freedesktop.locale1"));
}

void FakeLocaleServices::answerHeld()
{
    for (const QDBusMessage& call : accounts.held) {
        const qlonglong uid = call.arguments().value(0).toLongLong();
        connection.send(call.createReply(QVariant::fromValue(QDBusObjectPath(userPath(uid)))));
    }
    accounts.held.clear();
}
