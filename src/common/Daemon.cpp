#include "common/Daemon.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <sys/types.h>
#include <unistd.h>

namespace Orvanta::Daemon {

namespace {

// What the kernel names as the executable of the process, as the link reads:
// a deleted file ends in " (deleted)". Empty when there is no such process or
// we may not look at its executable.
QString executableOf(int pid)
{
    const QByteArray link = QByteArrayLiteral("/proc/") + QByteArray::number(pid) + "/exe";
    char target[PATH_MAX];
    const ssize_t length = readlink(link.constData(), target, sizeof(target));
    if (length <= 0 || static_cast<size_t>(length) >= sizeof(target)) {
        return QString();
    }
    // Decoded as QCoreApplication::applicationFilePath() decodes this same link.
    return QFile::decodeName(QByteArray(target, static_cast<qsizetype>(length)));
}

// The daemon is not dumpable, so a process of its own account other than root may not read
// its executable's link. The kernel's short name of the process (the executable's file name,
// cut to 15 bytes) stays readable: a hidden executable counts as programPath when that name
// matches.
bool hidesProgram(int pid, const QString& programPath)
{
    const QByteArray link = QByteArrayLiteral("/proc/") + QByteArray::number(pid) + "/exe";
    char target[1];
    if (readlink(link.constData(), target, sizeof(target)) != -1 || errno != EACCES) {
        return false;
    }
    QFile comm(QStringLiteral("/proc/%1/comm").arg(pid));
    if (!comm.open(QIODevice::ReadOnly)) {
        return false;
    }
    const QByteArray name = QFile::encodeName(QFileInfo(programPath).fileName()).left(15);
    return comm.readAll() == name + '\n';
}

} // namespace

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
    return pid != 0 && (executableOf(pid) == programPath || hidesProgram(pid, programPath));
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

void stop(QString pidFile, QString programPath)
{
    const int pid = getPid(pidFile);
    if (pid <= 0) {
        return;
    }
    const QString executable = executableOf(pid);
    if (executable == programPath || executable == programPath + QStringLiteral(" (deleted)") ||
        hidesProgram(pid, programPath)) {
        kill(pid, SIGTERM);
    }
}

} // namespace Orvanta::Daemon
