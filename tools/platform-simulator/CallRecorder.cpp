#include "CallRecorder.h"

#include <QDBusMessage>
#include <QMetaType>
#include <QVariant>

#include <cstdio>

namespace {

QString formatArgument(const QVariant& argument)
{
    if (argument.metaType().id() == QMetaType::QString) {
        QString text = argument.toString();
        text.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
        text.replace(QLatin1Char('"'), QLatin1String("\\\""));
        return QLatin1Char('"') + text + QLatin1Char('"');
    }
    if (argument.canConvert<QString>()) {
        return argument.toString();
    }
    return QLatin1Char('<') + QLatin1String(argument.typeName()) + QLatin1Char('>');
}

void writeLine(FILE* stream, const QString& line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    fflush(stream);
}

} // namespace

CallRecorder::CallRecorder(bool printCalls, const QString& fileName) : toStandardOutput(printCalls)
{
    if (fileName.isEmpty()) {
        return;
    }
    file.setFileName(fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        fileError = QStringLiteral("cannot write %1: %2").arg(fileName, file.errorString());
    }
}

void CallRecorder::record(const QDBusMessage& call)
{
    const QString line = formatCall(call);
    if (toStandardOutput) {
        writeLine(stdout, line);
    }
    if (file.isOpen()) {
        file.write(line.toUtf8() + '\n');
        file.flush();
    }
}

void CallRecorder::announce(const QString& text)
{
    writeLine(stdout, text);
}

QString CallRecorder::formatCall(const QDBusMessage& call)
{
    QString line = call.interface() + QLatin1Char('.') + call.member();
    const QVariantList arguments = call.arguments();
    for (const QVariant& argument : arguments) {
        line += QLatin1Char(' ') + formatArgument(argument);
    }
    return line;
}
