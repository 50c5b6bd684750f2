#include "seats/system/LogindSeats.h"

#include "common/Logger.h"
#include "seats/system/BusCall.h"
#include "seats/system/LogindTypes.h"

#include <QDBusServiceWatcher>
#include <QSet>

#include <algorithm>

namespace {
constexpr char logSource[] = "LogindSeats";

const QString service = QStringLiteral("org.freedesktop.login1");
const QString managerPath = QStringLiteral("/org/freedesktop/login1");
const QString managerInterface = QStringLiteral("org.freedesktop.login1.Manager");
const QString seatInterface = QStringLiteral("org.freedesktop.login1.Seat");
const QString sessionInterface = QStringLiteral("org.freedesktop.login1.Session");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

// The properties whose change can change what a reading finds. logind
// signals ActiveSession and CanGraphical of a seat; of a session, Display,
// Type and Class are fixed at its start on older versions, but newer ones
// let a session change its type and class.
const QSet<QString> seatProperties = {QStringLiteral("ActiveSession"),
                                      QStringLiteral("CanGraphical")};
const QSet<QString> sessionProperties = {QStringLiteral("Active"), QStringLiteral("Display"),
                                         QStringLiteral("Type"), QStringLiteral("Class")};

QDBusMessage call(const QString& path, const QString& interface, const QString& method,
                  const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    return message;
}

bool isReply(const QDBusMessage& message)
{
    return message.type() == QDBusMessage::ReplyMessage;
}

QVariantMap propertiesOf(const QDBusMessage& reply)
{
    return qdbus_cast<QVariantMap>(reply.arguments().value(0));
}

bool sameSeat(const SeatInfo& a, const SeatInfo& b)
{
    return a.name == b.name && a.canGraphical == b.canGraphical &&
           a.sessionDisplay == b.sessionDisplay && a.sessionType == b.sessionType &&
           a.sessionClass == b.sessionClass && a.sessionUid == b.sessionUid;
}
} // namespace

// One reading of every seat: the seats' entries are filled as their answers
// come, and the reading ends when none is outstanding.
struct LogindSeats::Reading
{
    QVector<SeatInfo> seats;
    QVector<QString> paths;
    int outstanding = 0;
};

LogindSeats::LogindSeats(const QDBusConnection& connection_, QObject* parent, int callTimeoutMs_,
                         int attachTimeoutMs_)
    : QObject(parent), connection(connection_), callTimeoutMs(callTimeoutMs_),
      attachTimeoutMs(attachTimeoutMs_)
{
    registerLogindTypes();
}

void LogindSeats::start()
{
    for (const char* signal : {"SeatNew", "SeatRemoved", "SessionNew", "SessionRemoved"}) {
        if (!connection.connect(service, managerPath, managerInterface, QString::fromLatin1(signal),
                                this, SLOT(onSeatsOrSessionsChanged()))) {
            SELVANE_LOG(LEVEL_WARNING, "Cannot follow logind's %s: %s", signal,
                        qPrintable(connection.lastError().message()));
        }
    }
    // An empty path follows the signal of every object of logind's.
    if (!connection.connect(service, QString(), propertiesInterface,
                            QStringLiteral("PropertiesChanged"), this,
                            SLOT(onPropertiesChanged(QDBusMessage)))) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot follow the property changes of logind's seats: %s",
                    qPrintable(connection.lastError().message()));
    }
    // A restarted logind has signalled nothing to this program while it was
    // away: read everything again.
    auto* watcher = new QDBusServiceWatcher(service, connection,
                                            QDBusServiceWatcher::WatchForRegistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceRegistered, this,
            &LogindSeats::onSeatsOrSessionsChanged);
    requestReading();
}

void LogindSeats::onSeatsOrSessionsChanged()
{
    requestReading();
}

void LogindSeats::onPropertiesChanged(const QDBusMessage& message)
{
    const QVariantList arguments = message.arguments();
    const QString interface = arguments.value(0).toString();
    const QSet<QString>* relevant = interface == seatInterface      ? &seatProperties
                                    : interface == sessionInterface ? &sessionProperties
                                                                    : nullptr;
    if (relevant == nullptr) {
        return;
    }
    QStringList names = qdbus_cast<QVariantMap>(arguments.value(1)).keys();
    names += qdbus_cast<QStringList>(arguments.value(2));
    if (std::any_of(names.cbegin(), names.cend(),
                    [relevant](const QString& name) { return relevant->contains(name); })) {
        requestReading();
    }
}

void LogindSeats::requestReading()
{
    if (reading) {
        readAgain = true;
        return;
    }
    reading = true;
    readAgain = false;
    sendBusCall(connection, call(managerPath, managerInterface, QStringLiteral("ListSeats"), {}),
                callTimeoutMs, this, [this](const QDBusMessage& reply) { seatsListed(reply); });
}

void LogindSeats::seatsListed(const QDBusMessage& reply)
{
    if (!isReply(reply)) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot list logind's seats: %s",
                    qPrintable(busErrorText(reply)));
        finishReading(nullptr);
        return;
    }
    const auto refs = qdbus_cast<QList<LogindObjectRef>>(reply.arguments().value(0));
    auto found = std::make_shared<Reading>();
    for (const LogindObjectRef& ref : refs) {
        SeatInfo seat;
        seat.name = ref.id;
        found->seats.append(seat);
        found->paths.append(ref.path.path());
    }
    found->outstanding = static_cast<int>(found->seats.size());
    if (found->outstanding == 0) {
        finishReading(&found->seats);
        return;
    }
    for (int index = 0; index < found->seats.size(); ++index) {
        sendBusCall(connection,
                    call(found->paths.at(index), propertiesInterface, QStringLiteral("GetAll"),
                         {seatInterface}),
                    callTimeoutMs, this, [this, found, index](const QDBusMessage& seatReply) {
                        seatRead(found, index, seatReply);
                    });
    }
}

void LogindSeats::seatRead(const std::shared_ptr<Reading>& found, int index,
                           const QDBusMessage& reply)
{
    SeatInfo& seat = found->seats[index];
    if (!isReply(reply)) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot read logind's seat %s: %s", qPrintable(seat.name),
                    qPrintable(busErrorText(reply)));
        seat = previous(seat.name);
        seatDone(found);
        return;
    }
    const QVariantMap properties = propertiesOf(reply);
    seat.canGraphical = properties.value(QStringLiteral("CanGraphical")).toBool();
    const auto active =
        qdbus_cast<LogindObjectRef>(properties.value(QStringLiteral("ActiveSession")));
    if (active.id.isEmpty() || active.path.path() == QLatin1String("/")) {
        seatDone(found);
        return;
    }
    const QString path = active.path.path();
    sendBusCall(connection,
                call(path, propertiesInterface, QStringLiteral("GetAll"), {sessionInterface}),
                callTimeoutMs, this, [this, found, index, path](const QDBusMessage& sessionReply) {
                    sessionRead(found, index, path, sessionReply);
                });
}

void LogindSeats::sessionRead(const std::shared_ptr<Reading>& found, int index, const QString& path,
                              const QDBusMessage& reply)
{
    SeatInfo& seat = found->seats[index];
    if (!isReply(reply)) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot read logind's session %s: %s", qPrintable(path),
                    qPrintable(busErrorText(reply)));
        const SeatInfo known = previous(seat.name);
        seat.sessionDisplay = known.sessionDisplay;
        seat.sessionType = known.sessionType;
        seat.sessionClass = known.sessionClass;
        seat.sessionUid = known.sessionUid;
        seatDone(found);
        return;
    }
    const QVariantMap properties = propertiesOf(reply);
    seat.sessionDisplay = properties.value(QStringLiteral("Display")).toString();
    seat.sessionType = properties.value(QStringLiteral("Type")).toString();
    seat.sessionClass = properties.value(QStringLiteral("Class")).toString();
    if (properties.contains(QStringLiteral("User"))) {
        seat.sessionUid = qdbus_cast<LogindUserRef>(properties.value(QStringLiteral("User"))).uid;
    }
    seatDone(found);
}

void LogindSeats::seatDone(const std::shared_ptr<Reading>& found)
{
    if (--found->outstanding == 0) {
        finishReading(&found->seats);
    }
}

void LogindSeats::finishReading(const QVector<SeatInfo>* found)
{
    reading = false;
    bool news = !readOnce;
    readOnce = true;
    if (found != nullptr) {
        QVector<SeatInfo> sorted = *found;
        // A seat that could not be read and was not known before has no name.
        sorted.erase(std::remove_if(sorted.begin(), sorted.end(),
                                    [](const SeatInfo& seat) { return seat.name.isEmpty(); }),
                     sorted.end());
        std::sort(sorted.begin(), sorted.end(),
                  [](const SeatInfo& a, const SeatInfo& b) { return a.name < b.name; });
        if (!std::equal(sorted.cbegin(), sorted.cend(), seats.cbegin(), seats.cend(), sameSeat)) {
            seats = sorted;
            news = true;
        }
    }
    if (readAgain) {
        requestReading();
    }
    if (news) {
        Q_EMIT changed();
    }
}

SeatInfo LogindSeats::previous(const QString& name) const
{
    const auto known = std::find_if(seats.cbegin(), seats.cend(),
                                    [&name](const SeatInfo& seat) { return seat.name == name; });
    return known == seats.cend() ? SeatInfo() : *known;
}

void LogindSeats::attachDevice(const QString& seat, const QString& syspath, AttachDone done)
{
    SELVANE_LOG(LEVEL_INFO, "Asking logind to attach %s to %s", qPrintable(syspath),
                qPrintable(seat));
    sendBusCall(
        connection,
        call(managerPath, managerInterface, QStringLiteral("AttachDevice"), {seat, syspath, false}),
        attachTimeoutMs, this, [seat, syspath, done = std::move(done)](const QDBusMessage& reply) {
            attachAnswered(seat, syspath, reply, done);
        });
}

void LogindSeats::attachAnswered(const QString& seat, const QString& syspath,
                                 const QDBusMessage& reply, const AttachDone& done)
{
    if (isReply(reply)) {
        SELVANE_LOG(LEVEL_INFO, "logind attached %s to %s", qPrintable(syspath), qPrintable(seat));
        done(true, QString());
        return;
    }
    const QString error = busErrorText(reply);
    // A step of the attach: the caller logs the failure as its one Error.
    SELVANE_LOG(LEVEL_INFO, "logind did not attach %s to %s: %s", qPrintable(syspath),
                qPrintable(seat), qPrintable(error));
    done(false, error);
}
