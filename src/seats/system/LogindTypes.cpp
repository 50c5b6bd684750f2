#include "seats/system/LogindTypes.h"

#include <QDBusMetaType>

QDBusArgument& operator<<(QDBusArgument& argument, const LogindObjectRef& ref)
{
    argument.beginStructure();
    argument << ref.id << ref.path;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, LogindObjectRef& ref)
{
    argument.beginStructure();
    argument >> ref.id >> ref.path;
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const LogindUserRef& ref)
{
    argument.beginStructure();
    argument << ref.uid << ref.path;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, LogindUserRef& ref)
{
    argument.beginStructure();
    argument >> ref.uid >> ref.path;
    argument.endStructure();
    return argument;
}

void registerLogindTypes()
{
    qDBusRegisterMetaType<LogindObjectRef>();
    qDBusRegisterMetaType<LogindUserRef>();
    qDBusRegisterMetaType<QList<LogindObjectRef>>();
}
