#include "ComposedPicture.h"

#include "overlay/OverlayComposer.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationParser.h"

#include "Paths.h"

#include <QHash>

#include <algorithm>
#include <cstdlib>

namespace ComposedPicture {

QImage composedPicture(const OverlayContent& content, QSize screen)
{
    const std::optional<OverlayPicture> picture = OverlayComposer::compose(content, screen);
    if (!picture) {
        return QImage();
    }
    return OverlayComposer::renderWhole(*picture).convertToFormat(QImage::Format_RGB32);
}

const TranslationLanguage* installedLanguage(const QString& id)
{
    struct Languages
    {
        Languages()
        {
            TranslationParser(byId).parse(QString::fromLatin1(Orvanta::Paths::translationFile));
        }
        ~Languages() { qDeleteAll(byId); }
        QHash<QString, TranslationLanguage*> byId;
    };
    static const Languages languages;
    return languages.byId.value(id, nullptr);
}

QString assignmentKeyOf(int stationId)
{
    const int keyNumber = stationId + 1;
    if (keyNumber <= 12) {
        return QStringLiteral("KEY_F%1").arg(keyNumber);
    }
    if (keyNumber <= 38) {
        return QStringLiteral("KEY_%1").arg(QChar('A' + stationId - 12));
    }
    return QStringLiteral("KEY_%1").arg(QChar('0' + stationId - 38));
}

QRect visiblePart(QSize screen)
{
    return QRect(0, 0, screen.width() - 1, screen.height() - 1);
}

QRect visibleOnScreen(QSize screen)
{
    return visiblePart(screen).translated(1, 1);
}

ScreenDifference compareScreens(const QImage& shot, const QImage& expected)
{
    ScreenDifference difference;
    if (shot.size() != expected.size() || shot.format() != expected.format()) {
        difference.pixels = expected.width() * expected.height();
        difference.maxLevels = 255;
        return difference;
    }
    for (int y = 0; y < shot.height(); ++y) {
        const auto* a = reinterpret_cast<const QRgb*>(shot.constScanLine(y));
        const auto* b = reinterpret_cast<const QRgb*>(expected.constScanLine(y));
        for (int x = 0; x < shot.width(); ++x) {
            if (a[x] == b[x]) {
                continue;
            }
            ++difference.pixels;
            difference.maxLevels = std::max(
                {difference.maxLevels, std::abs(qRed(a[x]) - qRed(b[x])),
                 std::abs(qGreen(a[x]) - qGreen(b[x])), std::abs(qBlue(a[x]) - qBlue(b[x]))});
        }
    }
    return difference;
}

bool showsPicture(const QImage& shot, const QImage& expected)
{
    return compareScreens(shot, expected).maxLevels <= textEdgeLevels;
}

} // namespace ComposedPicture
