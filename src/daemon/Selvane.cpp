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

Selvane::Selvane(QString configFile) : dbusInterface(this)
{
    if (!dbusInterface.connect()) {
        SELVANE_LOG(LEVEL_ERROR, "Could not connect to dbus");
        exit(1);
    }
    // A missing or broken file is logged by the parser; the overlay then
    // draws whatever strings were read, possibly none.
    TranslationParser translationParser(languages);
    translationParser.parse(QString::fromLatin1(Orvanta::Paths::translationFile));
    assignmentHandler = new AssignmentHandler(dbusInterface, *this);
    assignedDeviceHandler = new AssignedDeviceHandler(configFile);
    // Devices assigned to or removed from stations change the counts that the
    // overlays show.
    connect(assignedDeviceHandler, &AssignedDeviceHandler::assignedDevicesChanged,
            assignmentHandler, &AssignmentHandler::assignedDevicesChanged);
    connect(&timer, &QTimer::timeout, this, &Selvane::update);
    timer.start(updateIntervalMs);
}

Selvane::~Selvane()
{
    // The overlays use the languages, so they go first.
    delete assignmentHandler;
    delete assignedDeviceHandler;
    qDeleteAll(languages);
}

void Selvane::update()
{
    dbusInterface.update();
    assignmentHandler->update();
    assignedDeviceHandler->update();
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
