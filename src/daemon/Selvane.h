#pragma once

#include "daemon/DBusInterface.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

class AssignedDeviceHandler;
class AssignmentHandler;
class TranslationLanguage;

// The daemon's central object. It owns the handlers and the overlay's
// languages, read from the translation file at start, and drives the handlers
// from one repeating 100 ms timer: the program has no other periodic work and
// no other thread.
class Selvane : public QObject
{
    Q_OBJECT

public:
    // configFile is the key configuration file named on the command line.
    explicit Selvane(QString configFile);
    ~Selvane() override;

    // Logs the state of the handlers.
    void logStatus();

    AssignmentHandler* getAssignmentHandler() { return assignmentHandler; }
    AssignedDeviceHandler* getAssignedDeviceHandler() { return assignedDeviceHandler; }
    // The language with this id, or null; an unknown id adds no entry.
    TranslationLanguage* getLanguage(QString id) const;
    // The ids of the languages read from the translation file, sorted.
    QStringList getLanguageIds() const;

public Q_SLOTS:
    // One round of periodic work.
    void update();

private:
    QTimer timer;
    DBusInterface dbusInterface;
    QHash<QString, TranslationLanguage*> languages;
    AssignmentHandler* assignmentHandler = nullptr;
    AssignedDeviceHandler* assignedDeviceHandler = nullptr;
};
