#include "overlay/BackgroundLibrary.h"

#include "common/Logger.h"
#include "overlay/CompositionSlots.h"

#include "Paths.h"

#include <QDateTime>
#include <QFileInfo>
#include <QPainter>

namespace {
// The overlay's log lines belong to the display configuration, whichever
// thread writes them.
constexpr char logSource[] = "DisplayConfiguration";

QString imagePath(const QString& fileName)
{
    return QString::fromLatin1(Orvanta::Paths::imageDir) + "/" + fileName;
}

bool isOpaque(const QImage& image)
{
    if (!image.hasAlphaChannel()) {
        return true;
    }
    for (int y = 0; y < image.height(); ++y) {
        const auto* row = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            if (qAlpha(row[x]) != 255) {
                return false;
            }
        }
    }
    return true;
}

// The artwork at the placement's size on a screen of `screen`'s size; the
// margins repeat the artwork's outermost columns or rows, so that its plain
// edges run on to the screen's.
QImage placedOnScreen(const QImage& artwork, const ArtworkPlacement& placement, QSize screen)
{
    const QRect area = placement.getArea();
    if (area == QRect(QPoint(0, 0), screen)) {
        return artwork.size() == screen
                   ? artwork
                   : artwork.scaled(screen, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    }
    const QImage scaled =
        artwork.scaled(area.size(), Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    QImage image(screen, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.drawImage(area.topLeft(), scaled);
    // Without smooth transformation a one-pixel strip is repeated as it is.
    const int right = area.right() + 1;
    const int bottom = area.bottom() + 1;
    const QRect left(0, area.top(), area.left(), area.height());
    const QRect rightMargin(right, area.top(), screen.width() - right, area.height());
    const QRect top(area.left(), 0, area.width(), area.top());
    const QRect bottomMargin(area.left(), bottom, area.width(), screen.height() - bottom);
    painter.drawImage(left, scaled, QRect(0, 0, 1, scaled.height()));
    painter.drawImage(rightMargin, scaled, QRect(scaled.width() - 1, 0, 1, scaled.height()));
    painter.drawImage(top, scaled, QRect(0, 0, scaled.width(), 1));
    painter.drawImage(bottomMargin, scaled, QRect(0, scaled.height() - 1, scaled.width(), 1));
    return image;
}
} // namespace

BackgroundLibrary::FileStamp::FileStamp(const QString& fileName)
{
    const QFileInfo info(fileName.isEmpty() ? QString() : imagePath(fileName));
    if (!fileName.isEmpty() && info.exists()) {
        modified = info.lastModified().toMSecsSinceEpoch();
        size = info.size();
    }
}

BackgroundLibrary& BackgroundLibrary::shared()
{
    static BackgroundLibrary library;
    return library;
}

std::shared_ptr<const ScaledBackground>
BackgroundLibrary::obtain(const QString& fileName, const QString& badgeFile, QSize screen)
{
    // The files are looked for at every composition, as a missing one is
    // logged every time; only their pictures are shared.
    const Key key{fileName,       FileStamp(fileName), badgeFile, FileStamp(badgeFile),
                  screen.width(), screen.height()};
    bool complete = true;
    if (!key.fileStamp.exists() || (!badgeFile.isEmpty() && !key.badgeStamp.exists())) {
        return load(key, complete);
    }
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        Entry& entry = entries[key];
        if (std::shared_ptr<const ScaledBackground> found = entry.background.lock()) {
            return found;
        }
        if (!entry.loading) {
            entry.loading = true;
            break;
        }
        // Another station makes it; when that failed, this one tries itself.
        loaded.wait(lock);
    }
    lock.unlock();
    std::shared_ptr<const ScaledBackground> background = load(key, complete);
    lock.lock();
    Entry& entry = entries[key];
    entry.loading = false;
    // A picture without its badge is looked for again next time.
    if (background && complete) {
        entry.background = background;
    }
    sweep();
    lock.unlock();
    loaded.notify_all();
    return background;
}

int BackgroundLibrary::countInUse()
{
    const std::lock_guard<std::mutex> lock(mutex);
    int count = 0;
    for (const auto& [key, entry] : entries) {
        count += entry.background.expired() ? 0 : 1;
    }
    return count;
}

std::shared_ptr<const ScaledBackground> BackgroundLibrary::load(const Key& key, bool& complete)
{
    const CompositionSlots::Slot slot(CompositionSlots::shared());
    const QImage loaded(imagePath(key.fileName));
    if (loaded.isNull()) {
        SELVANE_LOG(LEVEL_WARNING, "Could not load image '" + key.fileName + "'");
        return nullptr;
    }
    // Palette and grey pictures cannot be painted on.
    QImage artwork = loaded.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    if (!key.badgeFile.isEmpty()) {
        const QImage badge(imagePath(key.badgeFile));
        if (badge.isNull()) {
            SELVANE_LOG(LEVEL_WARNING,
                        "Could not open overlay file '" + imagePath(key.badgeFile) + "'");
            complete = false;
        } else {
            QPainter painter(&artwork);
            painter.drawImage(artwork.rect(), badge, badge.rect());
        }
    }
    const QSize screen(key.width, key.height);
    auto background = std::make_shared<ScaledBackground>();
    background->placement = ArtworkPlacement::fit(artwork.size(), screen);
    background->image = placedOnScreen(artwork, background->placement, screen);
    background->image.setDotsPerMeterX(background->placement.dotsPerMeter());
    background->image.setDotsPerMeterY(background->placement.dotsPerMeter());
    background->opaque = isOpaque(background->image);
    return background;
}

void BackgroundLibrary::sweep()
{
    for (auto entry = entries.begin(); entry != entries.end();) {
        if (!entry->second.loading && entry->second.background.expired()) {
            entry = entries.erase(entry);
        } else {
            ++entry;
        }
    }
}
