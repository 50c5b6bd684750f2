#include "seats/SeatNumbers.h"

#include "common/Logger.h"
#include "seats/AtomicFile.h"

#include <QFile>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <utility>
#include <vector>

static constexpr char logSource[] = "SeatNumbers";

namespace {

const QString firstSeat = QStringLiteral("seat0");

// Why a line of the state file is left out; empty when it is a valid entry.
QString problemOf(const QStringList& fields, const QMap<QString, int>& numbers,
                  const QSet<int>& taken, int* number)
{
    if (fields.size() != 2) {
        return QStringLiteral("it is not \"SEAT NUMBER\"");
    }
    const QString& seat = fields.at(0);
    if (!SeatNumbers::isSeatName(seat)) {
        return QStringLiteral("'%1' is not a seat name").arg(seat);
    }
    static const QRegularExpression digits(QStringLiteral("^[0-9]{1,9}$"));
    if (!digits.match(fields.at(1)).hasMatch() || fields.at(1).toInt() > SeatNumbers::maxNumber) {
        return QStringLiteral("'%1' is not a station number from 0 to %2")
            .arg(fields.at(1))
            .arg(SeatNumbers::maxNumber);
    }
    *number = fields.at(1).toInt();
    if (seat == firstSeat && *number != 0) {
        return QStringLiteral("seat0 is always station 0");
    }
    if (seat != firstSeat && *number == 0) {
        return QStringLiteral("station 0 is seat0's");
    }
    if (numbers.contains(seat)) {
        return QStringLiteral("%1 has a number already").arg(seat);
    }
    if (taken.contains(*number)) {
        return QStringLiteral("station %1 is another seat's already").arg(*number);
    }
    return QString();
}

} // namespace

SeatNumbers::SeatNumbers(QString file) : stateFile(std::move(file)) {}

bool SeatNumbers::isSeatName(const QString& name)
{
    static const QRegularExpression pattern(QStringLiteral("^[a-zA-Z0-9_-]+$"));
    return pattern.match(name).hasMatch();
}

bool SeatNumbers::load()
{
    numbers.clear();
    changed = false;
    unreadable = false;
    QFile file(stateFile);
    if (!file.exists()) {
        return true;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        SELVANE_LOG(LEVEL_ERROR, "Could not read " + stateFile + ": " + file.errorString() +
                                     "; the numbers given until it can be read are not kept");
        unreadable = true;
        return false;
    }
    QSet<int> taken;
    const QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
    for (int index = 0; index < lines.size(); ++index) {
        const QString line = lines.at(index).section('#', 0, 0).trimmed();
        if (line.isEmpty()) {
            continue;
        }
        const QStringList fields = line.split(QRegularExpression(QStringLiteral("\\s+")));
        int number = -1;
        const QString problem = problemOf(fields, numbers, taken, &number);
        if (!problem.isEmpty()) {
            SELVANE_LOG(LEVEL_WARNING, QStringLiteral("%1:%2: line left out: %3")
                                           .arg(stateFile)
                                           .arg(index + 1)
                                           .arg(problem));
            continue;
        }
        numbers.insert(fields.at(0), number);
        taken.insert(number);
    }
    return true;
}

bool SeatNumbers::save()
{
    if (unreadable) {
        return false;
    }
    if (!changed) {
        return true;
    }
    std::vector<std::pair<int, QString>> byNumber;
    for (auto it = numbers.cbegin(); it != numbers.cend(); ++it) {
        byNumber.emplace_back(it.value(), it.key());
    }
    std::sort(byNumber.begin(), byNumber.end());
    QByteArray content = "# The station number of each seat: SEAT NUMBER. Numbers never move.\n";
    for (const auto& [number, seat] : byNumber) {
        content += seat.toUtf8() + ' ' + QByteArray::number(number) + '\n';
    }
    QString error;
    if (!writeFileAtomically(stateFile, content, &error)) {
        SELVANE_LOG(LEVEL_ERROR, "Could not save the station numbers: " + error);
        return false;
    }
    changed = false;
    return true;
}

int SeatNumbers::numberOf(const QString& seat)
{
    const int known = find(seat);
    if (known >= 0) {
        return known;
    }
    if (!isSeatName(seat)) {
        SELVANE_LOG(LEVEL_WARNING, "'" + seat + "' is not a seat name; it gets no station number");
        return -1;
    }
    int number = 0;
    if (seat != firstSeat) {
        QSet<int> taken;
        for (const int used : std::as_const(numbers)) {
            taken.insert(used);
        }
        number = 1;
        while (taken.contains(number)) {
            ++number;
        }
        if (number > maxNumber) {
            SELVANE_LOG(LEVEL_WARNING, "No station number is left for " + seat);
            return -1;
        }
    }
    numbers.insert(seat, number);
    changed = true;
    SELVANE_LOG(LEVEL_INFO, QStringLiteral("%1 is station %2").arg(seat).arg(number));
    return number;
}

int SeatNumbers::find(const QString& seat) const
{
    return numbers.value(seat, -1);
}
