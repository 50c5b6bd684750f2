#include "overlay/OverlayComposer.h"

#include "common/Logger.h"
#include "translation/TranslationLanguage.h"

#include "Paths.h"

#include <QDateTime>
#include <QFileInfo>
#include <QPainter>

#include <deque>
#include <mutex>
#include <utility>

namespace {
// The overlay's log lines belong to the display configuration, whichever
// thread writes them.
constexpr char logSource[] = "DisplayConfiguration";

// 72 dots per inch: one point of a font is one pixel of the unscaled picture.
constexpr double dotsPerMeterAt72Dpi = 2835.0;

// Baselines of the three key caps of the keyboard background, in its own pixel space.
constexpr int previousKeyX = 518;
constexpr int assignmentKeyX = 595;
constexpr int nextKeyX = 672;
constexpr int keyLabelY = 390;

// Enough for the three steps at a few screen sizes; past it the oldest goes.
constexpr size_t maximumCachedBackgrounds = 12;

QString imagePath(const QString& fileName)
{
    return QString::fromLatin1(Orvanta::Paths::imageDir) + "/" + fileName;
}

// Which version of a picture file is meant: a file replaced on disk is read anew.
struct FileStamp
{
    qint64 modified = 0;
    qint64 size = -1;

    explicit FileStamp(const QString& path = QString())
    {
        const QFileInfo info(path);
        if (!path.isEmpty() && info.exists()) {
            modified = info.lastModified().toMSecsSinceEpoch();
            size = info.size();
        }
    }
    bool exists() const { return size >= 0; }
    bool operator==(const FileStamp& other) const
    {
        return modified == other.modified && size == other.size;
    }
};

// A background scaled to one screen size, ready to be drawn on.
struct ScaledBackground
{
    QString fileName;
    FileStamp fileStamp;
    QString badgeFile;
    FileStamp badgeStamp;
    uint32_t width = 0;
    uint32_t height = 0;
    QImage image;
    double scaleX = 1.0;
    double scaleY = 1.0;
};

// The backgrounds that loaded completely (badge included), shared by all
// station threads. QImage copies share their pixels until one is painted on.
class BackgroundCache
{
public:
    static BackgroundCache& instance()
    {
        static BackgroundCache cache;
        return cache;
    }

    bool find(const ScaledBackground& wanted, ScaledBackground& found)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        for (const ScaledBackground& entry : entries) {
            if (entry.fileName == wanted.fileName && entry.fileStamp == wanted.fileStamp &&
                entry.badgeFile == wanted.badgeFile && entry.badgeStamp == wanted.badgeStamp &&
                entry.width == wanted.width && entry.height == wanted.height) {
                found = entry;
                return true;
            }
        }
        return false;
    }

    void insert(const ScaledBackground& background)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (entries.size() >= maximumCachedBackgrounds) {
            entries.pop_front();
        }
        entries.push_back(background);
    }

private:
    std::mutex mutex;
    std::deque<ScaledBackground> entries;
};

// What the keyboard step shows for the assignment key.
QString keyLabelOf(const OverlayContent& content)
{
    return content.keyLabel.isEmpty() ? content.assignmentKey.section('_', -1) : content.keyLabel;
}

// The labels of the keys before and after a letter, digit or F-key, empty
// where the row ends (no key before A, 0 or F1, none after Z, 9 or F12).
std::pair<QString, QString> neighboursOf(const QString& label)
{
    QString previous;
    QString next;
    if (label.size() == 1) {
        const QChar key = label.at(0);
        const QChar first = key.isLetter() ? QChar('A') : QChar('0');
        const QChar last = key.isLetter() ? QChar('Z') : QChar('9');
        if (key != first) {
            previous = QChar(key.unicode() - 1);
        }
        if (key != last) {
            next = QChar(key.unicode() + 1);
        }
    } else {
        const QString number = label.mid(1);
        if (number != QLatin1String("1")) {
            previous = QStringLiteral("F%1").arg(number.toInt() - 1);
        }
        if (number != QLatin1String("12")) {
            next = QStringLiteral("F%1").arg(number.toInt() + 1);
        }
    }
    return {previous, next};
}

} // namespace

bool OverlayComposer::loadImage(const QString& fileName, const QString& badgeFile, uint32_t width,
                                uint32_t height)
{
    // The files are looked for at every composition, as a missing one is
    // logged every time; only their pictures are kept.
    ScaledBackground background;
    background.fileName = fileName;
    background.fileStamp = FileStamp(imagePath(fileName));
    background.badgeFile = badgeFile;
    background.badgeStamp = FileStamp(badgeFile.isEmpty() ? QString() : imagePath(badgeFile));
    background.width = width;
    background.height = height;
    ScaledBackground cached;
    if (background.fileStamp.exists() && (badgeFile.isEmpty() || background.badgeStamp.exists()) &&
        BackgroundCache::instance().find(background, cached)) {
        image = cached.image;
        scaleX = cached.scaleX;
        scaleY = cached.scaleY;
        return true;
    }
    // Read aside: on failure the picture on the server, whose size `image`
    // gives to every expose, stays as it is.
    const QImage loaded(imagePath(fileName));
    if (loaded.isNull()) {
        SELVANE_LOG(LEVEL_WARNING, "Could not load image '" + fileName + "'");
        return false;
    }
    // Palette and grey pictures cannot be painted on.
    background.image = loaded.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    bool complete = true;
    if (!badgeFile.isEmpty()) {
        const QImage badge(imagePath(badgeFile));
        if (badge.isNull()) {
            SELVANE_LOG(LEVEL_WARNING,
                        "Could not open overlay file '" + imagePath(badgeFile) + "'");
            complete = false;
        } else {
            QPainter painter(&background.image);
            painter.drawImage(background.image.rect(), badge, badge.rect());
        }
    }

    const QSize size = background.image.size();
    if (size.width() != static_cast<int>(width) || size.height() != static_cast<int>(height)) {
        background.scaleX = static_cast<double>(width) / size.width();
        background.scaleY = static_cast<double>(height) / size.height();
        background.image =
            background.image.scaled(static_cast<int>(width), static_cast<int>(height),
                                    Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    }
    // Text is drawn in points: the fonts grow with the picture.
    background.image.setDotsPerMeterX(static_cast<int>(dotsPerMeterAt72Dpi * background.scaleX));
    background.image.setDotsPerMeterY(static_cast<int>(dotsPerMeterAt72Dpi * background.scaleY));

    // A picture without its badge is looked for again next time.
    if (complete) {
        BackgroundCache::instance().insert(background);
    }
    image = background.image;
    scaleX = background.scaleX;
    scaleY = background.scaleY;
    return true;
}

bool OverlayComposer::compose(const OverlayContent& content, uint32_t width, uint32_t height)
{
    if (!loadImage(content.backgroundFile(), content.badgeFile, width, height)) {
        return false;
    }
    if (!content.language) {
        return true;
    }
    QPainter painter(&image);
    switch (content.step) {
    case OverlayContent::STEP_KEYBOARD:
        renderKeyboardTexts(painter, content);
        break;
    case OverlayContent::STEP_MOUSE:
        renderMouseTexts(painter, content);
        break;
    case OverlayContent::STEP_MOUSE_BUSY:
        content.language->renderString(painter, scaleX, scaleY,
                                       QStringLiteral("please-wait-mouse"));
        break;
    }
    return true;
}

void OverlayComposer::renderStationTexts(QPainter& painter, const OverlayContent& content) const
{
    const TranslationLanguage& language = *content.language;
    language.renderString(painter, scaleX, scaleY, QStringLiteral("station-num"),
                          content.stationId);
    language.renderString(painter, scaleX, scaleY, QStringLiteral("station-name"),
                          content.stationName);
    language.renderString(painter, scaleX, scaleY, QStringLiteral("station-location"),
                          content.stationLocation);
}

void OverlayComposer::renderKeyboardTexts(QPainter& painter, const OverlayContent& content) const
{
    const TranslationLanguage& language = *content.language;
    renderStationTexts(painter, content);
    language.renderString(painter, scaleX, scaleY, QStringLiteral("configure-keyboard"));
    renderLabelOnKey(painter, content);
    language.renderString(painter, scaleX, scaleY, QStringLiteral("configure-keyboard-key"),
                          keyLabelOf(content));
    language.renderString(painter, scaleX, scaleY, QStringLiteral("keyboards-available"),
                          content.available);
    language.renderString(painter, scaleX, scaleY, QStringLiteral("keyboards-assigned"),
                          content.assigned);
}

void OverlayComposer::renderMouseTexts(QPainter& painter, const OverlayContent& content) const
{
    const TranslationLanguage& language = *content.language;
    renderStationTexts(painter, content);
    language.renderString(painter, scaleX, scaleY, QStringLiteral("configure-mouse"));
    language.renderString(painter, scaleX, scaleY, QStringLiteral("mice-available"),
                          content.available);
    language.renderString(painter, scaleX, scaleY, QStringLiteral("mice-assigned"),
                          content.assigned);
}

void OverlayComposer::renderLabelOnKey(QPainter& painter, const OverlayContent& content) const
{
    if (content.assignmentKey.isEmpty()) {
        return;
    }
    // The background shows three key caps: the assignment key in the middle
    // and its neighbours on the keyboard beside it, where there are any. A
    // label from the station's keyboard map that is no letter from A to Z (a
    // "," on a French keyboard) has no neighbours to show.
    const QString label = keyLabelOf(content);
    const bool isUsLabel = label == content.assignmentKey.section('_', -1);
    const bool isLetter =
        label.size() == 1 && label.at(0) >= QLatin1Char('A') && label.at(0) <= QLatin1Char('Z');
    const auto [previous, next] =
        isUsLabel || isLetter ? neighboursOf(label) : std::pair<QString, QString>();
    painter.setPen(Qt::white);
    const int y = qRound(keyLabelY * scaleY);
    if (!previous.isEmpty()) {
        painter.drawText(QPoint(qRound(previousKeyX * scaleX), y), previous);
    }
    painter.drawText(QPoint(qRound(assignmentKeyX * scaleX), y), label);
    if (!next.isEmpty()) {
        painter.drawText(QPoint(qRound(nextKeyX * scaleX), y), next);
    }
}
