#include "common/Util.h"

#include <QDateTime>
#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Orvanta {

qint64 utilSecondsSinceEpoch()
{
    return QDateTime::currentDateTime().toSecsSinceEpoch();
}

QString boolToString(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

bool openLatin1Path(QFile& file, const QString& fileName, QIODevice::OpenMode mode)
{
    int flags = O_CLOEXEC;
    if (mode & QIODevice::WriteOnly) {
        flags |= O_WRONLY | O_CREAT | ((mode & QIODevice::Append) ? O_APPEND : O_TRUNC);
    } else {
        flags |= O_RDONLY;
    }
    const int fd = open(fileName.toLatin1().constData(), flags, 0666);
    if (fd < 0) {
        return false;
    }
    struct stat status = {};
    if (fstat(fd, &status) != 0 || S_ISDIR(status.st_mode) ||
        !file.open(fd, mode, QFileDevice::AutoCloseHandle)) {
        close(fd);
        return false;
    }
    return true;
}

} // namespace Orvanta
