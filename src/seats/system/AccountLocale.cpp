#include "seats/system/AccountLocale.h"

#include "common/Logger.h"
#include "seats/system/BusCall.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>

namespace {
constexpr char logSource[] = "AccountLocale";

const QString accountsService = QStringLiteral("org.freedesktop.Accounts");
const QString localeService = QStringLiteral("org.freedesktop.locale1");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

QDBusMessage propertyCall(const QString& service, const QString& path, const QString& interface,
                          const QString& property)
{
    QDBusMessage message =
        QDBusMessage::createMethodCall(service, path, propertiesInterface, QStringLiteral("Get"));
    message.setArguments({interface, property});
    return message;
}

// The value of a Properties.Get reply, an invalid variant when it failed.
QVariant propertyValue(const QDBusMessage& reply)
{
    if (reply.type() != QDBusMessage::ReplyMessage) {
        return {};
    }
    return qvariant_cast<QDBusVariant>(reply.arguments().value(0)).variant();
}
} // namespace

AccountLocale::AccountLocale(const QDBusConnection& connection_, QObject* parent,
                             int callTimeoutMs_)
    : QObject(parent), connection(connection_), callTimeoutMs(callTimeoutMs_)
{
}

void AccountLocale::localeFor(qint64 uid, Answer answer)
{
    if (uid < 0) {
        askSystem(std::move(answer));
        return;
    }
    QDBusMessage find =
        QDBusMessage::createMethodCall(accountsService, QStringLiteral("/org/freedesktop/Accounts"),
                                       accountsService, QStringLiteral("FindUserById"));
    find.setArguments({uid});
    sendBusCall(connection, find, callTimeoutMs, this,
                [this, uid, answer = std::move(answer)](const QDBusMessage& reply) mutable {
                    userFound(uid, reply, std::move(answer));
                });
}

void AccountLocale::userFound(qint64 uid, const QDBusMessage& reply, Answer answer)
{
    if (reply.type() != QDBusMessage::ReplyMessage) {
        SELVANE_LOG(LEVEL_DEBUG, "AccountsService knows no user %lld: %s",
                    static_cast<long long>(uid), qPrintable(busErrorText(reply)));
        askSystem(std::move(answer));
        return;
    }
    const QString userPath = qdbus_cast<QDBusObjectPath>(reply.arguments().value(0)).path();
    sendBusCall(connection,
                propertyCall(accountsService, userPath,
                             QStringLiteral("org.freedesktop.Accounts.User"),
                             QStringLiteral("Language")),
                callTimeoutMs, this,
                [this, answer = std::move(answer)](const QDBusMessage& languageReply) mutable {
                    const QString language = propertyValue(languageReply).toString();
                    if (language.isEmpty()) {
                        askSystem(std::move(answer));
                        return;
                    }
                    answer(language);
                });
}

void AccountLocale::askSystem(Answer answer)
{
    sendBusCall(connection,
                propertyCall(localeService, QStringLiteral("/org/freedesktop/locale1"),
                             localeService, QStringLiteral("Locale")),
                callTimeoutMs, this, [answer = std::move(answer)](const QDBusMessage& reply) {
                    systemAnswered(reply, answer);
                });
}

void AccountLocale::systemAnswered(const QDBusMessage& reply, const Answer& answer)
{
    if (reply.type() != QDBusMessage::ReplyMessage) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot read the system's locale: %s",
                    qPrintable(busErrorText(reply)));
    }
    const QString lang = QStringLiteral("LANG=");
    for (const QString& entry : propertyValue(reply).toStringList()) {
        if (entry.startsWith(lang)) {
            answer(entry.mid(lang.size()));
            return;
        }
    }
    answer(QString());
}
