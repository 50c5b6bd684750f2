#pragma once

#include "seats/bus/PlatformRole.h"

#include <QDBusConnection>
#include <QObject>
#include <QString>

#include <memory>

// The three platform services the daemon calls, played by the seats bridge
// on the bus the two share: "com.orvanta.DB" at "/com/orvanta/DB",
// "com.orvanta.Assignment" at "/com/orvanta/Assignment" and
// "com.orvanta.Controllers.Session" at "/com/orvanta/Controllers/Session",
// each with the interface of its name. Every call is handed to a
// PlatformRole at once; Qt answers a call of the wrong signature with an
// error before it gets here.
//
// Owned by the bridge's main object; main thread only.
class PlatformBus : public QObject
{
    Q_OBJECT

public:
    PlatformBus(QDBusConnection connection, PlatformRole& role);
    ~PlatformBus() override;

    // Registers the objects and takes the three names; false, with the
    // reason in lastError(), when one cannot be had.
    bool start();
    QString lastError() const { return error; }

private:
    class Database;
    class Assignment;
    class SessionController;

    QDBusConnection bus;
    PlatformRole& platformRole;
    std::unique_ptr<QObject> databaseObject;
    std::unique_ptr<QObject> assignmentObject;
    std::unique_ptr<QObject> sessionObject;
    QString error;
};
