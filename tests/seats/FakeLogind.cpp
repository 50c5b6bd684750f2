#include "FakeLogind.h"

#include <algorithm>

namespace {
const QString service = QStringLiteral("org.freedesktop.login1");
const QString managerInterface = QStringLiteral("org.freedesktop.login1.Manager");
} // namespace

QString logindManagerPath()
{
    return QStringLiteral("/org/freedesktop/login1");
}

QString logindSeatPath(const QString& id)
{
    return logindManagerPath() + QStringLiteral("/seat/") + id;
}

QString logindSessionPath(const QString& id)
{
    return logindManagerPath() + QStringLiteral("/session/_3") + id;
}

QList<LogindObjectRef> FakeManager::ListSeats()
{
    ++listCalls;
    if (listMode == Mode::Hold) {
        hold();
    }
    return seats;
}

void FakeManager::AttachDevice(const QString& seat, const QString& sysfs, bool interactive)
{
    attachCalls.append({seat, sysfs, interactive});
    if (attachMode == Mode::Hold) {
        hold();
    } else if (attachMode == Mode::Refuse) {
        sendErrorReply(refusedError, refusedMessage);
    }
}

void FakeManager::hold()
{
    setDelayedReply(true);
    held.append(message());
}

FakeLogind::FakeLogind(const QDBusConnection& bus) : connection(bus)
{
    connection.registerObject(logindManagerPath(), &manager, QDBusConnection::ExportAllSlots);
}

bool FakeLogind::claimName()
{
    return connection.registerService(service);
}

FakeSeat* FakeLogind::addSeat(const QString& id, bool canGraphical)
{
    auto seat = std::make_unique<FakeSeat>();
    seat->id = id;
    seat->canGraphical = canGraphical;
    connection.registerObject(logindSeatPath(id), seat.get(), QDBusConnection::ExportAllProperties);
    manager.seats.append({id, QDBusObjectPath(logindSeatPath(id))});
    seats.push_back(std::move(seat));
    sendSignal(logindManagerPath(), managerInterface, QStringLiteral("SeatNew"),
               {id, QVariant::fromValue(QDBusObjectPath(logindSeatPath(id)))});
    return seats.back().get();
}

void FakeLogind::removeSeat(const QString& id)
{
    connection.unregisterObject(logindSeatPath(id));
    manager.seats.erase(std::remove_if(manager.seats.begin(), manager.seats.end(),
                                       [&id](const LogindObjectRef& ref) { return ref.id == id; }),
                        manager.seats.end());
    sendSignal(logindManagerPath(), managerInterface, QStringLiteral("SeatRemoved"),
               {id, QVariant::fromValue(QDBusObjectPath(logindSeatPath(id)))});
}

FakeSession* FakeLogind::addSession(const QString& id, const QString& display, const QString& type,
                                    const QString& sessionClass, uint uid)
{
    auto session = std::make_unique<FakeSession>();
    session->id = id;
    session->display = display;
    session->type = type;
    session->sessionClass = sessionClass;
    session->user = {uid,
                     QDBusObjectPath(logindManagerPath() + QStringLiteral("/user/_%1").arg(uid))};
    connection.registerObject(logindSessionPath(id), session.get(),
                              QDBusConnection::ExportAllProperties);
    sessions.push_back(std::move(session));
    return sessions.back().get();
}

void FakeLogind::activate(FakeSeat* seat, const QString& sessionId)
{
    seat->activeSession = {sessionId, QDBusObjectPath(logindSessionPath(sessionId))};
    propertiesChanged(logindSeatPath(seat->id), QStringLiteral("org.freedesktop.login1.Seat"), {},
                      {QStringLiteral("ActiveSession")});
}

void FakeLogind::propertiesChanged(const QString& path, const QString& interface,
                                   const QVariantMap& changed, const QStringList& invalidated)
{
    sendSignal(path, QStringLiteral("org.freedesktop.DBus.Properties"),
               QStringLiteral("PropertiesChanged"), {interface, changed, invalidated});
}

void FakeLogind::answerHeld(const QString& errorName)
{
    for (const QDBusMessage& call : manager.held) {
        connection.send(errorName.isEmpty()
                            ? call.createReply()
                            : call.createErrorReply(errorName, manager.refusedMessage));
    }
    manager.held.clear();
}

void FakeLogind::sendSignal(const QString& path, const QString& interface, const QString& name,
                            const QVariantList& arguments)
{
    QDBusMessage signal = QDBusMessage::createSignal(path, interface, name);
    signal.setArguments(arguments);
    connection.send(signal);
}
