#include "seats/system/StatusReport.h"

#include "common/Util.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>

namespace {
const QString none = QStringLiteral("-");

// Splits "seat12" into "seat" and 12, so that seat10 comes after seat9.
std::pair<QString, qlonglong> nameAndNumber(const QString& name)
{
    static const QRegularExpression trailingNumber(QStringLiteral("^(.*?)([0-9]+)$"));
    const QRegularExpressionMatch match = trailingNumber.match(name);
    if (!match.hasMatch()) {
        return {name, -1};
    }
    return {match.captured(1), match.captured(2).toLongLong()};
}

bool naturalLess(const QString& a, const QString& b)
{
    return nameAndNumber(a) < nameAndNumber(b);
}

QString kindOf(const InputDeviceInfo& device)
{
    if (device.keyboard && device.mouse) {
        return QStringLiteral("keyboard+mouse");
    }
    return device.keyboard ? QStringLiteral("keyboard") : QStringLiteral("mouse");
}

QString orNone(const QString& text)
{
    return text.isEmpty() ? none : text;
}

// Rows as columns two spaces apart; the last column is not padded.
QString columns(const QVector<QStringList>& rows)
{
    QVector<int> widths;
    for (const QStringList& row : rows) {
        widths.resize(std::max<int>(widths.size(), row.size()));
        for (int column = 0; column < row.size(); ++column) {
            widths[column] = std::max<int>(widths[column], row[column].size());
        }
    }
    QString text;
    for (const QStringList& row : rows) {
        QString line;
        for (int column = 0; column < row.size(); ++column) {
            line += column + 1 < row.size() ? row[column].leftJustified(widths[column] + 2)
                                            : row[column];
        }
        text += line + QLatin1Char('\n');
    }
    return text;
}

QString attachCommand(const QString& seat, const QString& card)
{
    return QStringLiteral("loginctl attach %1 %2").arg(seat, card);
}
} // namespace

StatusReport::StatusReport(const SystemSnapshot& snapshot, const QMap<QString, Station>& stations_)
    : seats(snapshot.seats), devices(snapshot.inputDevices), cards(snapshot.graphicsCards),
      stations(stations_)
{
    std::sort(seats.begin(), seats.end(),
              [](const SeatInfo& a, const SeatInfo& b) { return naturalLess(a.name, b.name); });
    std::sort(devices.begin(), devices.end(),
              [](const InputDeviceInfo& a, const InputDeviceInfo& b) {
                  return std::make_pair(a.port, nameAndNumber(a.syspath)) <
                         std::make_pair(b.port, nameAndNumber(b.syspath));
              });
    // Cards by the kernel's number (card2 before card10), wherever they sit.
    std::sort(cards.begin(), cards.end(), [](const GraphicsCardInfo& a, const GraphicsCardInfo& b) {
        return std::make_pair(nameAndNumber(QFileInfo(a.syspath).fileName()), a.syspath) <
               std::make_pair(nameAndNumber(QFileInfo(b.syspath).fileName()), b.syspath);
    });
}

QVector<StatusReport::NewSeat> StatusReport::newSeats() const
{
    QSet<QString> taken;
    bool seat0HasCard = false;
    for (const SeatInfo& seat : seats) {
        taken.insert(seat.name);
    }
    for (const GraphicsCardInfo& card : cards) {
        taken.insert(card.seat);
        seat0HasCard = seat0HasCard || card.seat == QLatin1String("seat0");
    }
    for (auto station = stations.cbegin(); station != stations.cend(); ++station) {
        taken.insert(station.key());
    }
    QVector<NewSeat> found;
    int next = 1;
    for (const GraphicsCardInfo& card : cards) {
        if (!card.masterOfSeat || !card.seat.isEmpty()) {
            continue;
        }
        if (!seat0HasCard) {
            seat0HasCard = true; // the first free card is seat0's own
            continue;
        }
        while (taken.contains(QStringLiteral("seat%1").arg(next))) {
            ++next;
        }
        const QString seat = QStringLiteral("seat%1").arg(next);
        taken.insert(seat);
        found.append({seat, card.syspath});
    }
    return found;
}

QStringList StatusReport::attachCommands() const
{
    QStringList commands;
    for (const NewSeat& newSeat : newSeats()) {
        commands.append(attachCommand(newSeat.seat, newSeat.card));
    }
    return commands;
}

QString StatusReport::table() const
{
    QVector<QStringList> seatRows = {{QStringLiteral("SEAT"), QStringLiteral("STATION"),
                                      QStringLiteral("DISPLAY"), QStringLiteral("SESSION")}};
    for (const SeatInfo& seat : seats) {
        const auto station = stations.constFind(seat.name);
        const bool known = station != stations.cend() && station->number >= 0;
        const QString session =
            QStringList{seat.sessionType, seat.sessionClass}.join(QLatin1Char(' ')).trimmed();
        seatRows.append({seat.name, known ? QString::number(station->number) : none,
                         known ? orNone(station->display) : none, orNone(session)});
    }
    QVector<QStringList> deviceRows = {{QStringLiteral("SEAT"), QStringLiteral("KIND"),
                                        QStringLiteral("PORT"), QStringLiteral("NAME")}};
    for (const InputDeviceInfo& device : devices) {
        // A device names itself: its name may hold line breaks or a terminal's
        // control sequences, which must not reach the administrator's terminal as such.
        deviceRows.append({orNone(device.seat), kindOf(device), orNone(device.port),
                           Orvanta::escapeForLog(device.name)});
    }
    QString text = QStringLiteral("Seats:\n") + columns(seatRows) +
                   QStringLiteral("\nKeyboards and mice:\n") + columns(deviceRows);
    const QStringList commands = attachCommands();
    if (commands.isEmpty()) {
        text += QStringLiteral("\nEvery graphics card is on a seat.\n");
    } else {
        text +=
            QStringLiteral("\nGraphics cards on no seat yet; as root, make a seat of each with:\n");
        for (const QString& command : commands) {
            text += QStringLiteral("  ") + command + QLatin1Char('\n');
        }
    }
    return text;
}

QByteArray StatusReport::json() const
{
    QJsonArray seatArray;
    for (const SeatInfo& seat : seats) {
        const auto station = stations.constFind(seat.name);
        const bool known = station != stations.cend() && station->number >= 0;
        seatArray.append(QJsonObject{
            {QStringLiteral("name"), seat.name},
            {QStringLiteral("canGraphical"), seat.canGraphical},
            {QStringLiteral("sessionType"), seat.sessionType},
            {QStringLiteral("station"), known ? QJsonValue(station->number) : QJsonValue()},
            {QStringLiteral("display"), known ? station->display : QString()}});
    }
    QJsonArray deviceArray;
    for (const InputDeviceInfo& device : devices) {
        deviceArray.append(QJsonObject{{QStringLiteral("node"), device.devnode},
                                       {QStringLiteral("syspath"), device.syspath},
                                       {QStringLiteral("port"), device.port},
                                       {QStringLiteral("name"), device.name},
                                       {QStringLiteral("keyboard"), device.keyboard},
                                       {QStringLiteral("mouse"), device.mouse},
                                       {QStringLiteral("seat"), device.seat}});
    }
    QJsonArray newSeatArray;
    for (const NewSeat& newSeat : newSeats()) {
        newSeatArray.append(
            QJsonObject{{QStringLiteral("seat"), newSeat.seat},
                        {QStringLiteral("card"), newSeat.card},
                        {QStringLiteral("command"), attachCommand(newSeat.seat, newSeat.card)}});
    }
    const QJsonObject report{{QStringLiteral("seats"), seatArray},
                             {QStringLiteral("devices"), deviceArray},
                             {QStringLiteral("newSeats"), newSeatArray}};
    return QJsonDocument(report).toJson(QJsonDocument::Indented);
}
