#include "EmulatedInput.h"

#include "DaemonRunner.h"

EmulatedInput::EmulatedInput(const QString& program, int keyboards, int mice)
{
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program,
                  {"--keyboards", QString::number(keyboards), "--mice", QString::number(mice)});
    QString line;
    while (process.waitForStarted() && readLine(line) && line != "ready") {
        const QStringList words = line.split(' ');
        if (line.startsWith("UMOCKDEV_DIR=") || line.startsWith("LD_PRELOAD=")) {
            environment.insert(line.section('=', 0, 0), line.section('=', 1));
        } else if (words.size() == 3 && (words.at(0) == "keyboard" || words.at(0) == "mouse")) {
            nodes.append(words.at(2));
        }
    }
}

EmulatedInput::~EmulatedInput()
{
    process.write("quit\n");
    if (!process.waitForFinished()) {
        process.kill();
        process.waitForFinished();
    }
}

bool EmulatedInput::send(const QString& command)
{
    process.write(command.toUtf8() + '\n');
    QString answer;
    return readLine(answer) && answer == "ok";
}

bool EmulatedInput::type(int device, const QStringList& keys)
{
    for (const QString& key : keys) {
        if (!send(QStringLiteral("press %1 %2").arg(device).arg(key))) {
            return false;
        }
    }
    for (auto key = keys.crbegin(); key != keys.crend(); ++key) {
        if (!send(QStringLiteral("release %1 %2").arg(device).arg(*key))) {
            return false;
        }
    }
    return true;
}

bool EmulatedInput::readLine(QString& line)
{
    if (!DaemonRunner::waitUntil([this] { return process.canReadLine(); })) {
        return false;
    }
    line = QString::fromUtf8(process.readLine()).trimmed();
    return true;
}
