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

QString escapeForLog(const QString& text)
{
    QString escaped;
    escaped.reserve(text.size());
    for (const QChar character : text) {
        const char16_t code = character.unicode();
        if (code == u'\n') {
            escaped += QLatin1String("\\n");
        } else if (code == u'\t') {
            escaped += QLatin1String("\\t");
        } else if (code == u'\\') {
            escaped += QLatin1String("\\\\");
        } else if (code < 0x20 || code == 0x7f) {
            escaped +=
                QStringLiteral("\\x%1").arg(static_cast<uint>(code), 2, 16, QLatin1Char('0'));
        } else {
            escaped += character;
        }
    }
    return escaped;
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
