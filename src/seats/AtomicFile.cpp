#include "seats/AtomicFile.h"

#include "common/OwnedFd.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What failed, with the system's reason (an errno value taken at once).
QString failure(const QString& what, int code)
{
    return what + ": " + QString::fromLocal8Bit(strerror(code));
}

bool writeAll(int fd, const QByteArray& content)
{
    const char* data = content.constData();
    qsizetype left = content.size();
    while (left > 0) {
        const ssize_t written = write(fd, data, static_cast<size_t>(left));
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        left -= written;
    }
    return true;
}

} // namespace

bool writeFileAtomically(const QString& fileName, const QByteArray& content, QString* error)
{
    const QByteArray path = QFile::encodeName(fileName);
    QByteArray temporary = path + ".XXXXXX";
    Orvanta::OwnedFd file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.isValid()) {
        const int code = errno;
        *error = failure("Could not create a temporary file beside " + fileName, code);
        return false;
    }
    const QString temporaryName = QFile::decodeName(temporary);
    // Called at once after the failed call, while errno is still its.
    const auto abandon = [&](const char* what) {
        const int code = errno;
        *error = failure(QString::fromLatin1(what) + " " + temporaryName, code);
        file.reset();
        unlink(temporary.constData());
        return false;
    };
    // mkostemp makes the file readable by its owner only; the record is no secret.
    if (fchmod(file.get(), 0644) != 0) {
        return abandon("Could not set the mode of");
    }
    if (!writeAll(file.get(), content)) {
        return abandon("Could not write");
    }
    if (fsync(file.get()) != 0) {
        return abandon("Could not flush");
    }
    if (close(file.release()) != 0) {
        return abandon("Could not close");
    }
    if (rename(temporary.constData(), path.constData()) != 0) {
        return abandon("Could not rename into place");
    }
    // The rename is in the directory's data: without this it may be lost in a power cut.
    const QByteArray directory = QFile::encodeName(QFileInfo(fileName).absolutePath());
    const Orvanta::OwnedFd parent(open(directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent.isValid() || fsync(parent.get()) != 0) {
        const int code = errno;
        *error = failure("Could not flush the directory of " + fileName, code);
        return false;
    }
    return true;
}
