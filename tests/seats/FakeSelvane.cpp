#include "FakeSelvane.h"

QString FakeSelvane::introspect(const QString& path) const
{
    Q_UNUSED(path);
    return QString();
}

bool FakeSelvane::handleMessage(const QDBusMessage& message, const QDBusConnection& connection)
{
    if (message.type() != QDBusMessage::MethodCallMessage) {
        return false;
    }
    QStringList arguments;
    for (const QVariant& argument : message.arguments()) {
        arguments.append(argument.toString());
    }
    calls.append(
        QStringLiteral("%1(%2)").arg(message.member(), arguments.join(QLatin1String(", "))));
    QDBusConnection(connection).send(message.createReply());
    return true;
}
