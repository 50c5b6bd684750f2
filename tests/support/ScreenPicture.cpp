#include "ScreenPicture.h"

#include "DaemonRunner.h"
#include "XDisplayProbe.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QRect>

namespace ScreenPicture {

QImage wholeScreen(const XDisplayProbe& probe)
{
    return probe.screenshot(QRect(QPoint(0, 0), probe.geometry(probe.getRoot()).size()));
}

QString fingerprint(const QImage& picture)
{
    const QImage pixels = picture.convertToFormat(QImage::Format_RGB32);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QByteArray row(pixels.width() * 4, '\0');
    for (int y = 0; y < pixels.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(pixels.constScanLine(y));
        for (int x = 0; x < pixels.width(); ++x) {
            row[4 * x] = static_cast<char>(qBlue(line[x]));
            row[4 * x + 1] = static_cast<char>(qGreen(line[x]));
            row[4 * x + 2] = static_cast<char>(qRed(line[x]));
            row[4 * x + 3] = static_cast<char>(0xff);
        }
        hash.addData(row);
    }
    return QString::fromLatin1(hash.result().toHex());
}

Taken takeWhen(const XDisplayProbe& probe, const std::function<void()>& step,
               const std::function<bool(const QImage&)>& accept, int timeoutMs)
{
    Taken taken;
    DaemonRunner::waitUntil(
        [&] {
            step();
            taken.screen = wholeScreen(probe);
            taken.accepted = !taken.screen.isNull() && accept(taken.screen);
            return taken.accepted;
        },
        timeoutMs);
    return taken;
}

QString saveForInspection(const QImage& picture, const QString& name)
{
    QString directory = qEnvironmentVariable("SELVANE_SCREENSHOT_DIR");
    if (directory.isEmpty()) {
        directory = QDir::temp().filePath(
            QStringLiteral("selvane-screenshots-%1").arg(QCoreApplication::applicationPid()));
    }
    const QString path = QDir(directory).filePath(name + QStringLiteral(".png"));
    if (!QDir().mkpath(directory) || !picture.save(path, "PNG")) {
        return QString();
    }
    return path;
}

} // namespace ScreenPicture
