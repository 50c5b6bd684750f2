#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QStringList>

// The daemon's object "/" as the tests' own: every method call it gets is
// answered at once and recorded as "configureKeyboard(1, 1)" or
// "unassignedDeviceAdded(/dev/input/event3)", in the order of arrival.
class FakeSelvane : public QDBusVirtualObject
{
    Q_OBJECT

public:
    QStringList calls;

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;
};
