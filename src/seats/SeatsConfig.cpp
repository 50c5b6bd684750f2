#include "seats/SeatsConfig.h"

#include "common/Logger.h"
#include "seats/SeatNumbers.h"

#include <QFile>
#include <QRegularExpression>

#include <utility>

static constexpr char logSource[] = "SeatsConfig";

SeatsConfig::SeatsConfig(QString file) : fileName(std::move(file)) {}

QString SeatsConfig::tag(const QString& tagName) const
{
    if (tagName == QLatin1String("name")) {
        return name;
    }
    if (tagName == QLatin1String("location")) {
        return location;
    }
    return QString();
}

int SeatsConfig::displayNumber(const QString& displayName)
{
    static const QRegularExpression pattern(QStringLiteral("^:([0-9]{1,5})(\\.[0-9]{1,5})?$"));
    const QRegularExpressionMatch match = pattern.match(displayName);
    if (!match.hasMatch()) {
        return -1;
    }
    const int number = match.captured(1).toInt();
    return number <= maxDisplay ? number : -1;
}

bool SeatsConfig::load()
{
    name.clear();
    location.clear();
    hasName = false;
    hasLocation = false;
    displays.clear();
    QFile file(fileName);
    if (!file.exists()) {
        return true;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        SELVANE_LOG(LEVEL_WARNING, "Could not read " + fileName + ": " + file.errorString());
        return false;
    }
    const QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
    for (int index = 0; index < lines.size(); ++index) {
        const QString line = lines.at(index).trimmed();
        if (line.isEmpty() || line.startsWith('#')) {
            continue;
        }
        const QString problem = take(line);
        if (!problem.isEmpty()) {
            SELVANE_LOG(LEVEL_WARNING, QStringLiteral("%1:%2: line ignored: %3")
                                           .arg(fileName)
                                           .arg(index + 1)
                                           .arg(problem));
        }
    }
    return true;
}

QString SeatsConfig::take(const QString& line)
{
    const int equals = line.indexOf('=');
    if (equals < 0) {
        return QStringLiteral("it has no \"=\"");
    }
    const QStringList key = line.left(equals).simplified().split(' ', Qt::SkipEmptyParts);
    const QString value = line.mid(equals + 1).trimmed();
    if (key == QStringList{QStringLiteral("name")}) {
        if (hasName) {
            return QStringLiteral("the name is set already");
        }
        name = value;
        hasName = true;
        return QString();
    }
    if (key == QStringList{QStringLiteral("location")}) {
        if (hasLocation) {
            return QStringLiteral("the location is set already");
        }
        location = value;
        hasLocation = true;
        return QString();
    }
    if (key.size() != 2 || key.at(0) != QLatin1String("display")) {
        return QStringLiteral("expected \"name = ...\", \"location = ...\" or "
                              "\"display SEAT = :N\"");
    }
    const QString& seat = key.at(1);
    if (!SeatNumbers::isSeatName(seat)) {
        return QStringLiteral("'%1' is not a seat name").arg(seat);
    }
    const int display = displayNumber(value);
    if (display < 0) {
        return QStringLiteral("'%1' is not a local X display \":N\"").arg(value);
    }
    if (displays.contains(seat)) {
        return QStringLiteral("the display of %1 is set already").arg(seat);
    }
    displays.insert(seat, display);
    return QString();
}
