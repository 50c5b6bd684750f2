#include "SoakStep.h"

#include <QFile>
#include <QUrl>

namespace {

const QStringList kindWords{"call",    "wrongtype", "plug",    "unplug", "press",
                            "release", "kill",      "restart", "pause"};

int indexAfter(const QString& token, const QString& prefix)
{
    bool ok = false;
    const int index = token.startsWith(prefix) ? token.mid(prefix.size()).toInt(&ok) : -1;
    return ok ? index : -1;
}

} // namespace

int SoakStep::slot() const
{
    return indexAfter(device, QStringLiteral("dev"));
}

QString SoakStep::literalPath() const
{
    return QUrl::fromPercentEncoding(device.mid(5).toLatin1());
}

int SoakStep::server() const
{
    return indexAfter(display, QStringLiteral("x"));
}

QString SoakStep::deviceToken(int slot)
{
    return QStringLiteral("dev%1").arg(slot);
}

QString SoakStep::pathToken(const QString& path)
{
    return QStringLiteral("path=") + QString::fromLatin1(QUrl::toPercentEncoding(path));
}

QString SoakStep::toLine() const
{
    QStringList words{kindWords.at(kind)};
    switch (kind) {
    case Call:
        words << method;
        if (method.startsWith(QLatin1String("device")) ||
            method.startsWith(QLatin1String("unassigned"))) {
            words << device;
        }
        if (method.startsWith(QLatin1String("configur"))) {
            words << display;
        }
        if (method == QLatin1String("deviceAddedToStation") ||
            method == QLatin1String("configureKeyboard") ||
            method == QLatin1String("configureMouse")) {
            words << QString::number(number);
        }
        break;
    case WrongType:
        words << method;
        break;
    case Plug:
    case Unplug:
        words << device;
        break;
    case Press:
    case Release:
        words << device << key;
        break;
    case Kill:
    case Restart:
        words << display;
        break;
    case Pause:
        words << QString::number(number);
        break;
    }
    return words.join(QLatin1Char(' '));
}

bool SoakStep::fromLine(const QString& line, SoakStep& step)
{
    const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    const int kind = kindWords.indexOf(words.value(0));
    if (kind < 0) {
        return false;
    }
    step = SoakStep();
    step.kind = static_cast<Kind>(kind);
    bool ok = true;
    switch (step.kind) {
    case Call:
    case WrongType:
        step.method = words.value(1);
        if (step.kind == Call) {
            int next = 2;
            if (step.method.startsWith(QLatin1String("device")) ||
                step.method.startsWith(QLatin1String("unassigned"))) {
                step.device = words.value(next++);
            }
            if (step.method.startsWith(QLatin1String("configur"))) {
                step.display = words.value(next++);
            }
            if (next < words.size()) {
                step.number = words.value(next).toLongLong(&ok);
            }
        }
        return ok && !step.method.isEmpty();
    case Plug:
    case Unplug:
        step.device = words.value(1);
        return step.slot() >= 0;
    case Press:
    case Release:
        step.device = words.value(1);
        step.key = words.value(2);
        return step.slot() >= 0 && !step.key.isEmpty();
    case Kill:
    case Restart:
        step.display = words.value(1);
        return step.server() >= 0;
    case Pause:
        step.number = words.value(1).toLongLong(&ok);
        return ok;
    }
    return false;
}

bool readSteps(const QString& fileName, QList<SoakStep>& steps, QString& error)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        error = fileName + QStringLiteral(": ") + file.errorString();
        return false;
    }
    int lineNumber = 0;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        ++lineNumber;
        if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        SoakStep step;
        if (!SoakStep::fromLine(line, step)) {
            error = QStringLiteral("%1:%2: not a step: %3").arg(fileName).arg(lineNumber).arg(line);
            return false;
        }
        steps.append(step);
    }
    return true;
}

bool writeSteps(const QString& fileName, const QList<SoakStep>& steps, const QString& header)
{
    QFile file(fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        return false;
    }
    for (const QString& line : header.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        file.write("# " + line.toUtf8() + '\n');
    }
    for (const SoakStep& step : steps) {
        file.write(step.toLine().toUtf8() + '\n');
    }
    return file.error() == QFileDevice::NoError;
}
