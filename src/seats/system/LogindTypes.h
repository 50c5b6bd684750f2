#pragma once

#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QList>
#include <QMetaType>
#include <QString>

// logind's (so) pair: a seat's or session's id and its object path, as in
// Manager.ListSeats and a seat's ActiveSession. An empty id and the path "/"
// stand for none.
struct LogindObjectRef
{
    QString id;
    QDBusObjectPath path;
};

// logind's (uo) pair: a user's uid and object path, as in a session's User.
struct LogindUserRef
{
    uint uid = 0;
    QDBusObjectPath path;
};

Q_DECLARE_METATYPE(LogindObjectRef)
Q_DECLARE_METATYPE(LogindUserRef)

QDBusArgument& operator<<(QDBusArgument& argument, const LogindObjectRef& ref);
const QDBusArgument& operator>>(const QDBusArgument& argument, LogindObjectRef& ref);
QDBusArgument& operator<<(QDBusArgument& argument, const LogindUserRef& ref);
const QDBusArgument& operator>>(const QDBusArgument& argument, LogindUserRef& ref);

// Makes both types (and the list of the first) known to Qt's D-Bus
// marshalling. Idempotent; call before the first use.
void registerLogindTypes();
