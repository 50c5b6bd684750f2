#include "ToolRun.h"

#include <QProcess>
#include <QStandardPaths>

ToolRun ToolRun::run(const QString& program, const QStringList& arguments,
                     const QProcessEnvironment& environment, int timeoutMs)
{
    ToolRun result;
    QProcess process;
    if (!environment.isEmpty()) {
        process.setProcessEnvironment(environment);
    }
    process.start(program, arguments);
    if (!process.waitForStarted(timeoutMs)) {
        result.standardError = process.errorString().toLocal8Bit();
        return result;
    }
    const bool finished = process.waitForFinished(timeoutMs);
    if (!finished) {
        process.kill();
        process.waitForFinished();
    }
    result.standardOutput = process.readAllStandardOutput();
    result.standardError = process.readAllStandardError();
    if (finished && process.exitStatus() == QProcess::NormalExit) {
        result.status = process.exitCode();
    }
    return result;
}

QString ToolRun::missingProgram(const QStringList& programs)
{
    for (const QString& program : programs) {
        if (QStandardPaths::findExecutable(program).isEmpty()) {
            return program;
        }
    }
    return QString();
}

QByteArray ToolRun::describe() const
{
    return "status " + QByteArray::number(status) + "\nstandard output:\n" + standardOutput +
           "\nstandard error:\n" + standardError;
}
