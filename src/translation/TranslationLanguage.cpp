#include "translation/TranslationLanguage.h"

#include "common/Logger.h"
#include "translation/TranslationString.h"
#include "translation/TranslationText.h"

#include <QFont>
#include <QPainter>
#include <QPointF>
#include <QRegularExpression>

#include <utility>

using Orvanta::Logger;

namespace {
constexpr char logSource[] = "TranslationLanguage";
constexpr char fontFamily[] = "DejaVu Sans";

// QString::arg replaces the lowest-numbered marker and warns on stderr when
// there is none; a line without a marker is drawn unchanged, so it is not
// handed to arg() at all.
bool hasPlaceMarker(const QString& text)
{
    static const QRegularExpression marker(QStringLiteral("%L?\\d"));
    return text.contains(marker);
}

// Positions are truncated toward zero after scaling, as whole pixels.
qreal scaled(int position, double scale)
{
    return static_cast<qreal>(static_cast<int>(position * scale));
}
} // namespace

TranslationLanguage::TranslationLanguage(QString languageId) : id(std::move(languageId)) {}

TranslationLanguage::~TranslationLanguage()
{
    qDeleteAll(strings);
}

TranslationString* TranslationLanguage::getString(QString stringId) const
{
    return strings.value(stringId, nullptr);
}

QStringList TranslationLanguage::getStringIds() const
{
    QStringList ids = strings.keys();
    ids.sort();
    return ids;
}

void TranslationLanguage::addString(TranslationString* string)
{
    if (!string) {
        SELVANE_LOG(LEVEL_BUG, "string is NULL");
        return;
    }
    if (strings.contains(string->getId())) {
        SELVANE_LOG(LEVEL_BUG, "This string has already been added to the language");
        return;
    }
    strings.insert(string->getId(), string);
}

template <typename Substitute>
void TranslationLanguage::drawLines(QPainter& painter, double xScale, double yScale,
                                    const QString& stringId, Substitute substitute) const
{
    const TranslationString* string = getString(stringId);
    // Written on every call, found or not: the overlay's log has always shown
    // each string it draws this way.
    Logger::write(Logger::LEVEL_BUG, QString::fromLatin1(logSource), QStringLiteral("renderString"),
                  __LINE__, "Cannot find string '" + stringId + "' for language '" + id + "'");
    if (!string) {
        return;
    }
    painter.setPen(Qt::black);
    for (int index = 0; index < string->getNumText(); ++index) {
        const TranslationText* line = string->getText(index);
        painter.setFont(QFont(QString::fromLatin1(fontFamily), line->getFontSize()));
        painter.drawText(QPointF(scaled(line->getPosX(), xScale), scaled(line->getPosY(), yScale)),
                         substitute(line->getText()));
    }
}

void TranslationLanguage::renderString(QPainter& painter, double xScale, double yScale,
                                       QString stringId) const
{
    drawLines(painter, xScale, yScale, stringId, [](const QString& text) { return text; });
}

void TranslationLanguage::renderString(QPainter& painter, double xScale, double yScale,
                                       QString stringId, int argument) const
{
    drawLines(painter, xScale, yScale, stringId, [argument](const QString& text) {
        return hasPlaceMarker(text) ? text.arg(argument) : text;
    });
}

void TranslationLanguage::renderString(QPainter& painter, double xScale, double yScale,
                                       QString stringId, QString argument) const
{
    drawLines(painter, xScale, yScale, stringId, [&argument](const QString& text) {
        return hasPlaceMarker(text) ? text.arg(argument) : text;
    });
}
