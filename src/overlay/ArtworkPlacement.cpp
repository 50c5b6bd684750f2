#include "overlay/ArtworkPlacement.h"

#include <QtGlobal>

#include <algorithm>

namespace {
// 72 dots per inch: one point of a font is one pixel of the unscaled artwork.
constexpr double dotsPerMeterAt72Dpi = 2835.0;
} // namespace

ArtworkPlacement ArtworkPlacement::fit(QSize artwork, QSize screen)
{
    ArtworkPlacement placement;
    const double scaleX = static_cast<double>(screen.width()) / artwork.width();
    const double scaleY = static_cast<double>(screen.height()) / artwork.height();
    placement.scale = std::min(scaleX, scaleY);
    // The side that limits the scale keeps the screen's length exactly.
    const int width = scaleX <= scaleY
                          ? screen.width()
                          : std::min(screen.width(), qRound(artwork.width() * placement.scale));
    const int height = scaleY <= scaleX
                           ? screen.height()
                           : std::min(screen.height(), qRound(artwork.height() * placement.scale));
    placement.area = QRect((screen.width() - width) / 2, (screen.height() - height) / 2,
                           std::max(width, 1), std::max(height, 1));
    return placement;
}

QPoint ArtworkPlacement::truncated(int x, int y) const
{
    return area.topLeft() + QPoint(static_cast<int>(x * scale), static_cast<int>(y * scale));
}

QPoint ArtworkPlacement::rounded(int x, int y) const
{
    return area.topLeft() + QPoint(qRound(x * scale), qRound(y * scale));
}

int ArtworkPlacement::dotsPerMeter() const
{
    return static_cast<int>(dotsPerMeterAt72Dpi * scale);
}
