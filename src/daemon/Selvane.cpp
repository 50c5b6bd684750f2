#include "daemon/Selvane.h"

#include "Paths.h"
#include "assignment/AssignmentHandler.h"
#include "common/Logger.h"
#include "sequences/AssignedDeviceHandler.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationParser.h"

#include <cstdlib>

namespace {
constexpr char logSource[] = "Selvane";
constexpr int updateIntervalMs = 100;
} // namespace

Selvane::Selvane(QString configFile, bool grabUnassigned)
    : configFileName(configFile), dbusInterface(this), platformServices(dbusInterface, *this)
{
    if (!dbusInterface.connect()) {
        SELVANE_LOG(LEVEL_ERROR, "Could not connect to dbus");
        exit(1);
    }
    // A missing or broken file is logged by the parser; the overlay then
    // draws whatever strings were read, possibly none.
    TranslationParser translationParser(languages);
    translationParser.parse(QString::fromLatin1(Orvanta::Paths::translationFile));
    assignmentHandler = new AssignmentHandler(platformServices, grabUnassigned);
    assignedDeviceHandler = new AssignedDeviceHandler(configFile);
    // Devices assigned to or removed from stations change the counts that the
    // overlays show.
    connect(assignedDeviceHandler, &AssignedDeviceHandler::assignedDevicesChanged,
            assignmentHandler, &AssignmentHandler::assignedDevicesChanged);
    connect(&dbusInterface, &DBusInterface::commandQueued, this, &Selvane::requestEarlyUpdate);
    connect(assignmentHandler, &AssignmentHandler::updateWanted, this,
            &Selvane::requestEarlyUpdate);
    connect(assignedDeviceHandler, &AssignedDeviceHandler::updateWanted, this,
            &Selvane::requestEarlyUpdate);
    connect(&timer, &QTimer::timeout, this, &Selvane::update);
    // Started by the first update that finds periodic work: at start there is none.
    timer.setInterval(updateIntervalMs);
}

Selvane::~Selvane()
{
    // The daemon ends without waiting for commands: those not started yet never run.
    assignedDeviceHandler->dropWaitingCommandsAtExit();
    // The overlays use the languages, so they go first.
    delete assignmentHandler;
    delete assignedDeviceHandler;
    qDeleteAll(languages);
}

void Selvane::update()
{
    // Whatever asked for an early update is done now; a request still posted
    // finds nothing to do.
    earlyUpdateRequested = false;
    reloadIfRequested();
    dbusInterface.update();
    assignmentHandler->update();
    assignedDeviceHandler->update();
    scheduleUpdates();
}

void Selvane::requestEarlyUpdate()
{
    if (earlyUpdateRequested) {
        return;
    }
    earlyUpdateRequested = true;
    QMetaObject::invokeMethod(this, &Selvane::runEarlyUpdate, Qt::QueuedConnection);
}

// The overlays' work and the LED steps are left to the timer, so that typing
// never raises the overlays or recomposes their pictures more often.
void Selvane::runEarlyUpdate()
{
    if (!earlyUpdateRequested) {
        return;
    }
    earlyUpdateRequested = false;
    reloadIfRequested();
    dbusInterface.update();
    assignmentHandler->updateDevices();
    assignedDeviceHandler->update();
    scheduleUpdates();
}

void Selvane::scheduleUpdates()
{
    if (!assignmentHandler->needsPeriodicUpdates()) {
        timer.stop();
    } else if (!timer.isActive()) {
        timer.start();
    }
}

void Selvane::requestReload()
{
    reloadRequested = true;
    requestEarlyUpdate();
}

// The log first, so that what the reading of the file reports lands in the
// new one.
void Selvane::reloadIfRequested()
{
    if (!reloadRequested) {
        return;
    }
    reloadRequested = false;
    Orvanta::Logger::reopenFileChannel();
    assignedDeviceHandler->reloadConfigFile(configFileName);
}

void Selvane::logStatus()
{
    assignmentHandler->logStatus();
    assignedDeviceHandler->logStatus();
}

TranslationLanguage* Selvane::getLanguage(QString id) const
{
    return languages.value(id, nullptr);
}

QStringList Selvane::getLanguageIds() const
{
    QStringList ids = languages.keys();
    ids.sort();
    return ids;
}
