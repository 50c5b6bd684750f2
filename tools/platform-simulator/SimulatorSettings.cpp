#include "SimulatorSettings.h"

#include <QFile>
#include <QTextStream>

namespace {

// Splits "key=value" at the first '='; false when there is none or the key is empty.
bool splitPair(const QString& text, QString& key, QString& value)
{
    const int equals = text.indexOf(QLatin1Char('='));
    if (equals <= 0) {
        return false;
    }
    key = text.left(equals).trimmed();
    value = text.mid(equals + 1).trimmed();
    return !key.isEmpty();
}

} // namespace

const QList<QPair<QString, QString>>& SimulatorSettings::countOptions()
{
    static const QList<QPair<QString, QString>> options = {
        {QStringLiteral("assigned-keyboards"),
         QStringLiteral("DeviceGetNumberOfAssignedKeyboards")},
        {QStringLiteral("unassigned-keyboards"),
         QStringLiteral("DeviceGetNumberOfUnassignedKeyboards")},
        {QStringLiteral("assigned-mice"), QStringLiteral("DeviceGetNumberOfAssignedMice")},
        {QStringLiteral("unassigned-mice"), QStringLiteral("DeviceGetNumberOfUnassignedMice")},
    };
    return options;
}

bool SimulatorSettings::apply(const QString& option, const QString& value, QString& error)
{
    for (const auto& [name, method] : countOptions()) {
        if (option != name) {
            continue;
        }
        bool isNumber = false;
        const int count = value.toInt(&isNumber);
        if (!isNumber) {
            error = QStringLiteral("%1 needs a whole number, not '%2'").arg(option, value);
            return false;
        }
        counts.insert(method, count);
        return true;
    }
    if (option == QLatin1String("tag") || option == QLatin1String("locale")) {
        QString key;
        QString text;
        if (!splitPair(value, key, text)) {
            error = QStringLiteral("%1 needs KEY=VALUE, not '%2'").arg(option, value);
            return false;
        }
        if (option == QLatin1String("tag")) {
            tags.insert(key, text);
            return true;
        }
        bool isNumber = false;
        key.toInt(&isNumber);
        if (!isNumber && key != QLatin1String("*")) {
            error = QStringLiteral("locale needs a display number or '*', not '%1'").arg(key);
            return false;
        }
        locales.insert(key, text);
        return true;
    }
    if (option == QLatin1String("fail")) {
        if (value.isEmpty()) {
            error = QStringLiteral("fail needs a method name");
            return false;
        }
        failing.insert(value);
        return true;
    }
    if (option == QLatin1String("delay")) {
        QString service;
        QString seconds;
        bool isNumber = false;
        if (!splitPair(value, service, seconds)) {
            error = QStringLiteral("delay needs SERVICE=SECONDS, not '%1'").arg(value);
            return false;
        }
        const int delay = seconds.toInt(&isNumber);
        if (!isNumber || delay < 0) {
            error = QStringLiteral("delay needs a whole number of seconds, not '%1'").arg(seconds);
            return false;
        }
        answerDelays.insert(service, delay * 1000);
        return true;
    }
    if (option == QLatin1String("hang")) {
        if (value.isEmpty()) {
            error = QStringLiteral("hang needs a service name");
            return false;
        }
        answerDelays.insert(value, neverAnswers);
        return true;
    }
    error = QStringLiteral("unknown setting '%1'").arg(option);
    return false;
}

bool SimulatorSettings::loadFile(const QString& fileName, QString& error)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        error = QStringLiteral("cannot read %1: %2").arg(fileName, file.errorString());
        return false;
    }
    QTextStream stream(&file);
    int lineNumber = 0;
    while (!stream.atEnd()) {
        const QString line = stream.readLine().trimmed();
        ++lineNumber;
        if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        QString option;
        QString value;
        QString problem;
        if (!splitPair(line, option, value) || !apply(option, value, problem)) {
            error = QStringLiteral("%1:%2: %3")
                        .arg(fileName)
                        .arg(lineNumber)
                        .arg(problem.isEmpty() ? QStringLiteral("expected option=value") : problem);
            return false;
        }
    }
    return true;
}

QString SimulatorSettings::getLocale(int displayId) const
{
    const QString key = QString::number(displayId);
    if (locales.contains(key)) {
        return locales.value(key);
    }
    return locales.value(QStringLiteral("*"));
}
