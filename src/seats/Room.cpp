#include "seats/Room.h"

#include "common/Logger.h"
#include "seats/SeatNumbers.h"
#include "seats/SeatsConfig.h"

#include <QRegularExpression>
#include <QSet>

#include <algorithm>

static constexpr char logSource[] = "Room";

namespace {

struct DisplayChoice
{
    int displayId;
    QString reason;
};

DisplayChoice chooseDisplay(const SeatInfo& seat, const SeatsConfig& config)
{
    const int named = config.displayOf(seat.name);
    if (named >= 0) {
        return {named, QStringLiteral("seats.conf names it")};
    }
    if (seat.sessionType.isEmpty()) {
        return {-1, QStringLiteral("the seat has no active session")};
    }
    const QString session = seat.sessionClass == QLatin1String("greeter")
                                ? QStringLiteral("greeter")
                                : QStringLiteral("session");
    if (seat.sessionType == QLatin1String("wayland")) {
        return {-1, "its active " + session +
                        " is a Wayland one, where no prompt can be drawn (seats.conf can name "
                        "an X display for the seat)"};
    }
    if (seat.sessionType != QLatin1String("x11")) {
        return {-1, "its active " + session + " (type " + seat.sessionType + ") has no X display"};
    }
    const int displayId = SeatsConfig::displayNumber(seat.sessionDisplay);
    if (displayId < 0) {
        return {-1, "its active x11 " + session + " has no local display \":N\" (it has '" +
                        seat.sessionDisplay + "')"};
    }
    return {displayId, "its active x11 " + session};
}

} // namespace

Room::Room(SeatNumbers& seatNumbers, const SeatsConfig& seatsConfig)
    : numbers(seatNumbers), config(seatsConfig)
{
}

void Room::update(const SystemSnapshot& snapshot)
{
    updateStations(snapshot.seats);
    updateDevices(snapshot.inputDevices);
    logDisplayChanges();
}

void Room::updateStations(const QVector<SeatInfo>& seats)
{
    stations.clear();
    QVector<const SeatInfo*> graphical;
    for (const SeatInfo& seat : seats) {
        if (seat.canGraphical) {
            graphical.append(&seat);
        }
    }
    // Seats seen together for the first time are numbered in the order of their
    // names, shorter names first, so that seat2 gets a lower number than seat10.
    std::stable_sort(graphical.begin(), graphical.end(), [](const SeatInfo* a, const SeatInfo* b) {
        if (a->name.size() != b->name.size()) {
            return a->name.size() < b->name.size();
        }
        return a->name < b->name;
    });
    for (const SeatInfo* seat : std::as_const(graphical)) {
        if (findStationOfSeat(seat->name)) {
            continue;
        }
        const int number = numbers.numberOf(seat->name);
        if (number < 0) {
            continue;
        }
        const DisplayChoice choice = chooseDisplay(*seat, config);
        stations.append({seat->name, number, choice.displayId, choice.reason, seat->sessionType,
                         seat->sessionUid});
    }
    std::sort(stations.begin(), stations.end(),
              [](const Station& a, const Station& b) { return a.number < b.number; });
    // A display shows one station's prompts: the daemon keeps one overlay per display.
    QMap<int, int> owners;
    for (Station& station : stations) {
        if (station.displayId < 0) {
            continue;
        }
        if (owners.contains(station.displayId)) {
            station.displayReason = QStringLiteral("its display :%1 is station %2's")
                                        .arg(station.displayId)
                                        .arg(owners.value(station.displayId));
            station.displayId = -1;
            continue;
        }
        owners.insert(station.displayId, station.number);
    }
}

QString Room::portOf(const InputDeviceInfo& device)
{
    if (!device.port.isEmpty()) {
        return device.port;
    }
    static const QRegularExpression eventNode(QStringLiteral("^(.*/input[0-9]+)/event[0-9]+$"));
    const QRegularExpressionMatch match = eventNode.match(device.syspath);
    return match.hasMatch() ? match.captured(1) : QString();
}

void Room::updateDevices(const QVector<InputDeviceInfo>& inputDevices)
{
    devices.clear();
    QSet<QString> seen;
    for (const InputDeviceInfo& info : inputDevices) {
        if (info.forSeat.isEmpty() || !(info.keyboard || info.mouse) || info.devnode.isEmpty() ||
            seen.contains(info.devnode)) {
            continue;
        }
        seen.insert(info.devnode);
        RoomDevice device;
        device.path = info.devnode;
        device.syspath = info.syspath;
        device.name = info.name;
        device.keyboard = info.keyboard;
        device.mouse = info.mouse;
        device.seat = info.seat;
        device.port = portOf(info);
        if (const Station* station = findStationOfSeat(info.seat)) {
            device.station = station->number;
        }
        devices.append(device);
    }
}

void Room::logDisplayChanges()
{
    QSet<QString> present;
    for (const Station& station : std::as_const(stations)) {
        present.insert(station.seat);
        const QPair<int, QString> shown(station.displayId, station.displayReason);
        if (loggedDisplays.value(station.seat) == shown && loggedDisplays.contains(station.seat)) {
            continue;
        }
        loggedDisplays.insert(station.seat, shown);
        if (station.displayId >= 0) {
            SELVANE_LOG(LEVEL_INFO, QStringLiteral("Station %1 (%2) prompts on display :%3: %4")
                                        .arg(station.number)
                                        .arg(station.seat)
                                        .arg(station.displayId)
                                        .arg(station.displayReason));
        } else {
            SELVANE_LOG(LEVEL_INFO, QStringLiteral("Station %1 (%2) gets no prompt: %3")
                                        .arg(station.number)
                                        .arg(station.seat, station.displayReason));
        }
    }
    for (auto it = loggedDisplays.begin(); it != loggedDisplays.end();) {
        if (present.contains(it.key())) {
            ++it;
            continue;
        }
        SELVANE_LOG(LEVEL_INFO, it.key() + " is no station any more");
        it = loggedDisplays.erase(it);
    }
}

const Station* Room::findStation(int number) const
{
    for (const Station& station : stations) {
        if (station.number == number) {
            return &station;
        }
    }
    return nullptr;
}

const Station* Room::findStationOfSeat(const QString& seat) const
{
    if (seat.isEmpty()) {
        return nullptr;
    }
    for (const Station& station : stations) {
        if (station.seat == seat) {
            return &station;
        }
    }
    return nullptr;
}

const Station* Room::findStationOnDisplay(int displayId) const
{
    if (displayId < 0) {
        return nullptr;
    }
    for (const Station& station : stations) {
        if (station.displayId == displayId) {
            return &station;
        }
    }
    return nullptr;
}

const RoomDevice* Room::findDevice(const QString& path) const
{
    for (const RoomDevice& device : devices) {
        if (device.path == path) {
            return &device;
        }
    }
    return nullptr;
}

DeviceCounts Room::getCounts() const
{
    DeviceCounts counts;
    for (const RoomDevice& device : devices) {
        if (device.keyboard) {
            ++(device.isAssigned() ? counts.assignedKeyboards : counts.unassignedKeyboards);
        }
        if (device.mouse) {
            ++(device.isAssigned() ? counts.assignedMice : counts.unassignedMice);
        }
    }
    return counts;
}
