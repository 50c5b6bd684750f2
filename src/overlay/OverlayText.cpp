#include "overlay/OverlayText.h"

#include "translation/TranslationLanguage.h"
#include "translation/TranslationText.h"

#include <QFontMetrics>
#include <QPainter>

#include <algorithm>
#include <utility>

namespace {

constexpr char fontFamily[] = "DejaVu Sans";

// Baselines of the three key caps of the keyboard background, in the artwork's pixels.
constexpr int previousKeyX = 518;
constexpr int assignmentKeyX = 595;
constexpr int nextKeyX = 672;
constexpr int keyLabelY = 390;

// Antialiasing may colour a pixel or two beyond the glyphs' own boxes.
constexpr int antialiasingMargin = 3;

QRect boundsOf(const QString& text, const QFont& font, QPoint position, const QPaintDevice& device)
{
    const QFontMetrics metrics(font, &device);
    const QRect glyphs = metrics.boundingRect(text).united(
        QRect(0, -metrics.ascent(), metrics.horizontalAdvance(text), metrics.height()));
    return glyphs.translated(position).adjusted(-antialiasingMargin, -antialiasingMargin,
                                                antialiasingMargin, antialiasingMargin);
}

// Overlapping rectangles joined into their bounding rectangles, until none overlap.
std::vector<QRect> joined(std::vector<QRect> areas)
{
    areas.erase(std::remove_if(areas.begin(), areas.end(),
                               [](const QRect& area) { return area.isEmpty(); }),
                areas.end());
    for (size_t i = 0; i < areas.size();) {
        const auto overlapping =
            std::find_if(areas.begin() + static_cast<std::ptrdiff_t>(i) + 1, areas.end(),
                         [&](const QRect& other) { return areas[i].intersects(other); });
        if (overlapping == areas.end()) {
            ++i;
            continue;
        }
        areas[i] |= *overlapping;
        areas.erase(overlapping);
        // The grown rectangle may now meet one that was checked before it.
        i = 0;
    }
    return areas;
}

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

// Collects a picture's lines in drawing order. A key label takes the font of
// the line before it, as it always has.
class TextCollector
{
public:
    TextCollector(const ArtworkPlacement& artworkPlacement, const QPaintDevice& paintDevice)
        : placement(artworkPlacement), device(paintDevice)
    {
    }

    void add(const std::vector<TranslationText>& lines)
    {
        for (const TranslationText& line : lines) {
            texts.push_back(OverlayTextLayout::fromTranslation(line, placement, device));
            font = texts.back().font;
        }
    }

    void addKeyLabel(const QString& label, int artworkX)
    {
        if (label.isEmpty()) {
            return;
        }
        const QPoint position = placement.rounded(artworkX, keyLabelY);
        texts.push_back(
            {label, font, Qt::white, position, boundsOf(label, font, position, device)});
    }

    std::vector<OverlayText> take() { return std::move(texts); }

private:
    const ArtworkPlacement& placement;
    const QPaintDevice& device;
    QFont font;
    std::vector<OverlayText> texts;
};

void addStationTexts(TextCollector& collector, const OverlayContent& content)
{
    const TranslationLanguage& language = *content.language;
    collector.add(language.linesOf(QStringLiteral("station-num"), content.stationId));
    collector.add(language.linesOf(QStringLiteral("station-name"), content.stationName));
    collector.add(language.linesOf(QStringLiteral("station-location"), content.stationLocation));
}

// The background shows three key caps: the assignment key in the middle and
// its neighbours on the keyboard beside it, where there are any. A label from
// the station's keyboard map that is no letter from A to Z (a "," on a French
// keyboard) has no neighbours to show.
void addKeyLabels(TextCollector& collector, const OverlayContent& content)
{
    if (content.assignmentKey.isEmpty()) {
        return;
    }
    const QString label = keyLabelOf(content);
    const bool isUsLabel = label == content.assignmentKey.section('_', -1);
    const bool isLetter =
        label.size() == 1 && label.at(0) >= QLatin1Char('A') && label.at(0) <= QLatin1Char('Z');
    const auto [previous, next] =
        isUsLabel || isLetter ? neighboursOf(label) : std::pair<QString, QString>();
    collector.addKeyLabel(previous, previousKeyX);
    collector.addKeyLabel(label, assignmentKeyX);
    collector.addKeyLabel(next, nextKeyX);
}

void addKeyboardTexts(TextCollector& collector, const OverlayContent& content)
{
    const TranslationLanguage& language = *content.language;
    addStationTexts(collector, content);
    collector.add(language.linesOf(QStringLiteral("configure-keyboard")));
    addKeyLabels(collector, content);
    collector.add(language.linesOf(QStringLiteral("configure-keyboard-key"), keyLabelOf(content)));
    collector.add(language.linesOf(QStringLiteral("keyboards-available"), content.available));
    collector.add(language.linesOf(QStringLiteral("keyboards-assigned"), content.assigned));
}

void addMouseTexts(TextCollector& collector, const OverlayContent& content)
{
    const TranslationLanguage& language = *content.language;
    addStationTexts(collector, content);
    collector.add(language.linesOf(QStringLiteral("configure-mouse")));
    collector.add(language.linesOf(QStringLiteral("mice-available"), content.available));
    collector.add(language.linesOf(QStringLiteral("mice-assigned"), content.assigned));
}

} // namespace

std::vector<OverlayText> OverlayTextLayout::layOut(const OverlayContent& content,
                                                   const ArtworkPlacement& placement,
                                                   const QPaintDevice& device)
{
    if (!content.language) {
        return {};
    }
    TextCollector collector(placement, device);
    switch (content.step) {
    case OverlayContent::STEP_KEYBOARD:
        addKeyboardTexts(collector, content);
        break;
    case OverlayContent::STEP_MOUSE:
        addMouseTexts(collector, content);
        break;
    case OverlayContent::STEP_MOUSE_BUSY:
        collector.add(content.language->linesOf(QStringLiteral("please-wait-mouse")));
        break;
    }
    return collector.take();
}

OverlayText OverlayTextLayout::fromTranslation(const TranslationText& line,
                                               const ArtworkPlacement& placement,
                                               const QPaintDevice& device)
{
    const QFont font(QString::fromLatin1(fontFamily), line.getFontSize());
    const QPoint position = placement.truncated(line.getPosX(), line.getPosY());
    return {line.getText(), font, Qt::black, position,
            boundsOf(line.getText(), font, position, device)};
}

void OverlayTextLayout::draw(QPainter& painter, const std::vector<OverlayText>& texts)
{
    for (const OverlayText& text : texts) {
        painter.setPen(text.colour);
        painter.setFont(text.font);
        painter.drawText(QPointF(text.position), text.text);
    }
}

std::vector<QRect> OverlayTextLayout::areasOf(const std::vector<OverlayText>& texts)
{
    std::vector<QRect> areas;
    for (const OverlayText& text : texts) {
        areas.push_back(text.bounds);
    }
    return joined(std::move(areas));
}

std::vector<QRect> OverlayTextLayout::changedAreas(const std::vector<OverlayText>& before,
                                                   const std::vector<OverlayText>& after)
{
    std::vector<QRect> areas;
    const auto collectMissing = [&areas](const std::vector<OverlayText>& from,
                                         const std::vector<OverlayText>& in) {
        for (const OverlayText& text : from) {
            if (std::find(in.begin(), in.end(), text) == in.end()) {
                areas.push_back(text.bounds);
            }
        }
    };
    collectMissing(before, after);
    collectMissing(after, before);
    return joined(std::move(areas));
}
