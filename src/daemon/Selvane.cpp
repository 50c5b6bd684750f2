#include "daemon/Selvane.h"

#include "Paths.h"
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
    assignedDeviceHandler = new AssignedDeviceHandler(configFile);
    connect(&timer, &QTimer::timeout, this, &Selvane::update);
    timer.start(updateIntervalMs);
}

Selvane::~Selvane()
{
    delete assignedDeviceHandler;
    qDeleteAll(languages);
}

void Selvane::update()
{
    dbusInterface.update();
    assignedDeviceHandler->update();
}

void Selvane::logStatus()
{
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
