#include "common/Daemon.h"

#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <cstdio>
#include <sys/types.h>
#include <unistd.h>

namespace Orvanta::Daemon {

int getPid(QString pidFile)
{
    QFile file(pidFile);
    if (!file.exists() || !file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    QByteArray bytes = file.readAll();
    // The text ends at the first NUL byte, if there is one.
    const qsizetype nul = bytes.indexOf('\0');
    if (nul >= 0) {
        bytes.truncate(nul);
    }
    bool ok = false;
    const int pid = QString::fromLatin1(bytes).toInt(&ok, 10);
    return ok ? pid : 0;
}

bool isProgramRunning(QString pidFile, QString programPath)
{
    const int pid = getPid(pidFile);
    if (pid == 0) {
        return false;
    }
    const QString exeLink = QStringLiteral("/proc/%1/exe").arg(pid);
    // QFileInfo::exists follows the link: false when there is no such process
    // or we may not look at its executable.
    const QFileInfo exe(exeLink);
    if (!exe.exists()) {
        return false;
    }
    return exe.symLinkTarget() == programPath;
}

bool start(QString pidFile)
{
    // Whatever stdio still buffers would otherwise be written twice, once by
    // each process.
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        return false;
    }
    if (pid > 0) {
        // The parent's only job is done. _exit, not exit: the child shares the
        // parent's descriptors and the application's clean-up handlers must run
        // only once, in the child, when the daemon ends.
        _exit(0);
    }
    QFile file(pidFile);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return false;
    }
    file.write(QByteArray::number(static_cast<qint64>(getpid())));
    file.flush();
    file.close();
    return true;
}

void stop(QString pidFile)
{
    const int pid = getPid(pidFile);
    if (pid > 0) {
        kill(pid, SIGTERM);
    }
}

} // namespace Orvanta::Daemon
