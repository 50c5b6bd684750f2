#include "seats/system/SeatRules.h"

#include "common/Logger.h"
#include "common/OwnedFd.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr char logSource[] = "SeatRules";

const QRegularExpression seatName(QStringLiteral("^[a-zA-Z0-9_-]+$"));
const QRegularExpression forSeatMatch(QStringLiteral(R"re(ENV\{ID_FOR_SEAT\}\s*==\s*"([^"]*)")re"));
// An assignment, not a comparison: "=" not followed by "=".
const QRegularExpression
    seatAssignment(QStringLiteral(R"re(ENV\{ID_SEAT\}\s*=(?!=)\s*"([^"]*)")re"));

QString errnoText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

// logind's rules are one line; a file larger than this is someone else's.
constexpr qint64 maxRuleFileBytes = 64 * 1024;

// Reads one rule file; false when it is not one logind wrote.
bool parseRule(const QString& path, SeatRules::Rule& rule)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return false;
    }
    const QByteArray content = file.read(maxRuleFileBytes + 1);
    if (content.size() > maxRuleFileBytes) {
        return false;
    }
    for (const QByteArray& raw : content.split('\n')) {
        const QString line = QString::fromUtf8(raw).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        const QRegularExpressionMatch match = forSeatMatch.match(line);
        const QRegularExpressionMatch assignment = seatAssignment.match(line);
        if (!match.hasMatch() || !assignment.hasMatch()) {
            return false;
        }
        if ((!rule.forSeat.isEmpty() && rule.forSeat != match.captured(1)) ||
            (!rule.seat.isEmpty() && rule.seat != assignment.captured(1))) {
            return false;
        }
        rule.forSeat = match.captured(1);
        rule.seat = assignment.captured(1);
    }
    return !rule.forSeat.isEmpty() && !rule.seat.isEmpty();
}

bool isKeyboardOrMouseOf(const InputDeviceInfo& device, const QString& forSeat)
{
    return (device.keyboard || device.mouse) &&
           (device.portForSeat == forSeat || device.forSeat == forSeat);
}

void appendOnce(QStringList& list, const QString& item)
{
    if (!item.isEmpty() && !list.contains(item)) {
        list.append(item);
    }
}

// The syspaths udev has to evaluate again for the device, parents before
// children: its port, the devices between the port and its inputN device (a
// USB interface, a HID device: udev passes the seat down through them, and
// inputN would take it from them again), inputN and the event node.
void appendPathsOf(QStringList& paths, const InputDeviceInfo& device)
{
    const QString input = QFileInfo(device.syspath).path();
    appendOnce(paths, device.port);
    if (!device.port.isEmpty() && input.startsWith(device.port + QLatin1Char('/'))) {
        const QStringList steps = input.mid(device.port.size() + 1).split(QLatin1Char('/'));
        QString path = device.port;
        for (int step = 0; step + 1 < steps.size(); ++step) {
            path += QLatin1Char('/') + steps.at(step);
            if (QFileInfo::exists(path + QStringLiteral("/uevent"))) {
                appendOnce(paths, path);
            }
        }
    }
    appendOnce(paths, input);
    appendOnce(paths, device.syspath);
}

// Those of every keyboard and mouse that the rule with this tag places.
QStringList devicesOf(const QString& forSeat, const SystemSnapshot& snapshot)
{
    QStringList paths;
    for (const InputDeviceInfo& device : snapshot.inputDevices) {
        if (isKeyboardOrMouseOf(device, forSeat)) {
            appendPathsOf(paths, device);
        }
    }
    return paths;
}

bool removeRuleFile(const QString& path, QString& error)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat status = {};
    if (lstat(name.constData(), &status) != 0) {
        error = errnoText();
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = QStringLiteral("not a regular file");
        return false;
    }
    if (unlink(name.constData()) != 0) {
        error = errnoText();
        return false;
    }
    return true;
}

bool writeChange(const QString& syspath, QString& error)
{
    const QByteArray name = QFile::encodeName(syspath + QStringLiteral("/uevent"));
    const Orvanta::OwnedFd file(open(name.constData(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file.isValid()) {
        error = errnoText();
        return false;
    }
    static constexpr char change[] = "change";
    if (write(file.get(), change, sizeof(change) - 1) != static_cast<ssize_t>(sizeof(change) - 1)) {
        error = errnoText();
        return false;
    }
    return true;
}
} // namespace

SeatRules::SeatRules(const QString& rulesDirectory) : directory(rulesDirectory) {}

QVector<SeatRules::Rule> SeatRules::rules() const
{
    QVector<Rule> found;
    const QStringList names =
        QDir(directory).entryList({QStringLiteral("72-seat-*.rules")}, QDir::Files, QDir::Name);
    for (const QString& name : names) {
        Rule rule;
        rule.fileName = name;
        if (parseRule(QDir(directory).filePath(name), rule)) {
            found.append(rule);
        }
    }
    return found;
}

SeatRules::Release SeatRules::release(const QString& seat, const SystemSnapshot& snapshot) const
{
    Release result;
    if (!seatName.match(seat).hasMatch()) {
        result.errors.append(QStringLiteral("\"%1\" is no seat name").arg(seat));
        SELVANE_LOG(LEVEL_ERROR, "%s", qPrintable(result.errors.constLast()));
        return result;
    }
    QStringList toTrigger;
    for (const Rule& rule : rules()) {
        if (rule.seat != seat) {
            continue;
        }
        const bool card = std::any_of(
            snapshot.graphicsCards.cbegin(), snapshot.graphicsCards.cend(),
            [&rule](const GraphicsCardInfo& info) { return info.forSeat == rule.forSeat; });
        const QStringList devices = devicesOf(rule.forSeat, snapshot);
        if (card || devices.isEmpty()) {
            SELVANE_LOG(LEVEL_INFO, "Keeping %s: %s", qPrintable(rule.fileName),
                        card ? "it places a graphics card" : "it places no keyboard or mouse");
            continue;
        }
        const QString path = QDir(directory).filePath(rule.fileName);
        QString error;
        if (!removeRuleFile(path, error)) {
            result.errors.append(QStringLiteral("Cannot remove %1: %2").arg(path, error));
            SELVANE_LOG(LEVEL_ERROR, "%s", qPrintable(result.errors.constLast()));
            continue;
        }
        SELVANE_LOG(LEVEL_INFO, "Removed %s, which placed %s on %s", qPrintable(path),
                    qPrintable(rule.forSeat), qPrintable(seat));
        result.removedFiles.append(path);
        for (const QString& device : devices) {
            appendOnce(toTrigger, device);
        }
    }
    // A keyboard or mouse that still shows the seat though no rule places it
    // any more (udev evaluated it before it re-read its rules, or a release
    // was cut short) is evaluated again as well, so releasing twice heals it.
    QSet<QString> placed;
    for (const Rule& rule : rules()) {
        placed.insert(rule.forSeat);
    }
    for (const InputDeviceInfo& device : snapshot.inputDevices) {
        if ((device.keyboard || device.mouse) && device.seat == seat &&
            !placed.contains(device.portForSeat) && !placed.contains(device.forSeat)) {
            appendPathsOf(toTrigger, device);
        }
    }
    for (const QString& device : toTrigger) {
        QString error;
        if (!writeChange(device, error)) {
            result.errors.append(
                QStringLiteral("Cannot have udev evaluate %1 again: %2").arg(device, error));
            SELVANE_LOG(LEVEL_ERROR, "%s", qPrintable(result.errors.constLast()));
            continue;
        }
        SELVANE_LOG(LEVEL_INFO, "Asked udev to evaluate %s again", qPrintable(device));
        result.retriggered.append(device);
    }
    return result;
}
