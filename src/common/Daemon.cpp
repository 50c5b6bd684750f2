#include "common/Daemon.h"

#include "common/OwnedFd.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

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

// The longest pid file read; a longer one holds no pid.
constexpr size_t maxPidFileSize = 4096;
// Tries of a random name for the new pid file before giving up.
constexpr int temporaryNameAttempts = 16;

// Opens the regular file at path for reading, without following a symlink
// and without waiting on a FIFO (whose open would block until a writer came).
// Holds -1 when that is not a regular file. Async-signal-safe.
OwnedFd openRegularFile(const char* path)
{
    OwnedFd file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (file.get() >= 0 && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        file.reset();
    }
    return file;
}

// Reads up to size bytes; the count read, -1 on failure. Async-signal-safe.
ssize_t readUpTo(int fd, char* buffer, size_t size)
{
    size_t total = 0;
    while (total < size) {
        const ssize_t got = read(fd, buffer + total, size - total);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        total += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(total);
}

// Writes the pid to a new file of a random name in the directory of pidFile.
// Its path, or an empty array when no such file could be made.
QByteArray writeTemporaryPidFile(const QByteArray& pidFile)
{
    const QFileInfo info(QFile::decodeName(pidFile));
    const QByteArray prefix =
        QFile::encodeName(info.path()) + "/." + QFile::encodeName(info.fileName()) + '.';
    const QByteArray pid = QByteArray::number(static_cast<qint64>(getpid()));
    for (int attempt = 0; attempt < temporaryNameAttempts; ++attempt) {
        QByteArray path = prefix + QByteArray::number(QRandomGenerator::system()->generate64(), 16);
        OwnedFd file(
            open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644));
        if (file.get() < 0 && errno == EEXIST) {
            continue;
        }
        if (file.get() < 0) {
            return QByteArray();
        }
        const bool written = write(file.get(), pid.constData(), static_cast<size_t>(pid.size())) ==
                             static_cast<ssize_t>(pid.size());
        if (close(file.release()) != 0 || !written) {
            unlink(path.constData());
            return QByteArray();
        }
        return path;
    }
    return QByteArray();
}

} // namespace

int getPid(QString pidFile)
{
    const OwnedFd file = openRegularFile(QFile::encodeName(pidFile).constData());
    if (file.get() < 0) {
        return 0;
    }
    QByteArray bytes(maxPidFileSize + 1, Qt::Uninitialized);
    const ssize_t size = readUpTo(file.get(), bytes.data(), static_cast<size_t>(bytes.size()));
    if (size < 0 || static_cast<size_t>(size) > maxPidFileSize) {
        return 0;
    }
    bytes.truncate(size);
    // The text ends at the first NUL byte, if there is one.
    const qsizetype nul = bytes.indexOf('\0');
    if (nul >= 0) {
        bytes.truncate(nul);
    }
    bool ok = false;
    const int pid = QString::fromLatin1(bytes).toInt(&ok, 10);
    return ok ? pid : 0;
}

bool isUsablePidFilePath(QString pidFile)
{
    struct stat status = {};
    return lstat(QFile::encodeName(pidFile).constData(), &status) != 0 || S_ISREG(status.st_mode);
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
    const QByteArray path = QFile::encodeName(pidFile);
    const QByteArray temporary = writeTemporaryPidFile(path);
    if (temporary.isEmpty()) {
        return false;
    }
    if (rename(temporary.constData(), path.constData()) != 0) {
        unlink(temporary.constData());
        return false;
    }
    return true;
}

void removeOwnPidFile(const char* pidFile)
{
    const OwnedFd file = openRegularFile(pidFile);
    if (file.get() < 0) {
        return;
    }
    // Digits only, as start() writes them, and at most as many as a pid has.
    char digits[24];
    const ssize_t size = readUpTo(file.get(), digits, sizeof(digits));
    if (size <= 0 || static_cast<size_t>(size) >= sizeof(digits)) {
        return;
    }
    long long pid = 0;
    for (ssize_t i = 0; i < size; ++i) {
        if (digits[i] < '0' || digits[i] > '9') {
            return;
        }
        pid = pid * 10 + (digits[i] - '0');
    }
    if (pid == static_cast<long long>(getpid())) {
        unlink(pidFile);
    }
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
