#include "PlatformSimulator.h"

#include "CallRecorder.h"
#include "SimulatedService.h"
#include "SimulatorSettings.h"

#include <QDBusConnection>
#include <QDBusError>

#include <algorithm>

namespace {

QList<SimulatedMethod> databaseMethods(const SimulatorSettings& settings)
{
    QList<SimulatedMethod> methods;
    for (const auto& option : SimulatorSettings::countOptions()) {
        const QString name = option.second;
        methods.append({name, {}, QStringLiteral("i"), [&settings, name](const QVariantList&) {
                            return QVariant(settings.getCount(name));
                        }});
    }
    methods.append({QStringLiteral("StationGetTag"),
                    {{QStringLiteral("s"), QStringLiteral("tag")}},
                    QStringLiteral("s"),
                    [&settings](const QVariantList& arguments) {
                        return QVariant(settings.getTag(arguments.at(0).toString()));
                    }});
    return methods;
}

QList<SimulatedMethod> assignmentMethods()
{
    return {{QStringLiteral("SelvaneStarted"), {}, QString(), nullptr},
            {QStringLiteral("DeviceAssignedAuto"),
             {{QStringLiteral("s"), QStringLiteral("deviceFileName")},
              {QStringLiteral("i"), QStringLiteral("displayId")},
              {QStringLiteral("s"), QStringLiteral("deviceKind")}},
             QString(),
             nullptr}};
}

QList<SimulatedMethod> sessionControllerMethods(const SimulatorSettings& settings)
{
    return {{QStringLiteral("GetLocaleForUserOnDisplay"),
             {{QStringLiteral("i"), QStringLiteral("displayId")}},
             QStringLiteral("s"),
             [&settings](const QVariantList& arguments) {
                 return QVariant(settings.getLocale(arguments.at(0).toInt()));
             }}};
}

} // namespace

PlatformSimulator::PlatformSimulator(const SimulatorSettings& settings_, CallRecorder& recorder)
    : settings(settings_)
{
    services.push_back(std::make_unique<SimulatedService>(
        QStringLiteral("com.orvanta.DB"), QStringLiteral("/com/orvanta/DB"),
        databaseMethods(settings), settings, recorder));
    services.push_back(std::make_unique<SimulatedService>(QStringLiteral("com.orvanta.Assignment"),
                                                          QStringLiteral("/com/orvanta/Assignment"),
                                                          assignmentMethods(), settings, recorder));
    services.push_back(
        std::make_unique<SimulatedService>(QStringLiteral("com.orvanta.Controllers.Session"),
                                           QStringLiteral("/com/orvanta/Controllers/Session"),
                                           sessionControllerMethods(settings), settings, recorder));
}

PlatformSimulator::~PlatformSimulator()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    for (const auto& service : services) {
        bus.unregisterObject(service->getObjectPath());
    }
}

bool PlatformSimulator::start(QString& error)
{
    for (const QString& name : settings.getSlowServices()) {
        const bool known = std::any_of(services.begin(), services.end(), [&name](const auto& s) {
            return s->getInterfaceName() == name;
        });
        if (!known) {
            error = QStringLiteral("there is no service %1 to delay").arg(name);
            return false;
        }
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        error = QStringLiteral("no session bus: ") + bus.lastError().message();
        return false;
    }
    // Objects first, names last: once a name is visible its object answers.
    for (const auto& service : services) {
        if (!bus.registerVirtualObject(service->getObjectPath(), service.get())) {
            error = QStringLiteral("cannot register object %1").arg(service->getObjectPath());
            return false;
        }
    }
    for (const auto& service : services) {
        if (!bus.registerService(service->getInterfaceName())) {
            error = QStringLiteral("cannot own the name %1: %2")
                        .arg(service->getInterfaceName(), bus.lastError().message());
            return false;
        }
    }
    return true;
}
