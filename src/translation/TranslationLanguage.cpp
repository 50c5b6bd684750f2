#include "translation/TranslationLanguage.h"

#include "common/Logger.h"
#include "translation/TranslationString.h"
#include "translation/TranslationText.h"

#include <QRegularExpression>

#include <utility>

using Orvanta::Logger;

namespace {
constexpr char logSource[] = "TranslationLanguage";

// QString::arg replaces the lowest-numbered marker and warns on stderr when
// there is none; a line without a marker is drawn unchanged, so it is not
// handed to arg() at all.
bool hasPlaceMarker(const QString& text)
{
    static const QRegularExpression marker(QStringLiteral("%L?\\d"));
    return text.contains(marker);
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
std::vector<TranslationText> TranslationLanguage::substitutedLines(const QString& stringId,
                                                                   Substitute substitute) const
{
    const TranslationString* string = getString(stringId);
    // Written on every call, found or not: the overlay's log has always shown
    // each string it draws this way.
    Logger::write(Logger::LEVEL_BUG, QString::fromLatin1(logSource), QStringLiteral("renderString"),
                  __LINE__, "Cannot find string '" + stringId + "' for language '" + id + "'");
    std::vector<TranslationText> lines;
    if (!string) {
        return lines;
    }
    for (int index = 0; index < string->getNumText(); ++index) {
        const TranslationText* line = string->getText(index);
        lines.emplace_back(line->getFontSize(), line->getPosX(), line->getPosY(),
                           substitute(line->getText()));
    }
    return lines;
}

std::vector<TranslationText> TranslationLanguage::linesOf(QString stringId) const
{
    return substitutedLines(stringId, [](const QString& text) { return text; });
}

std::vector<TranslationText> TranslationLanguage::linesOf(QString stringId, int argument) const
{
    return substitutedLines(stringId, [argument](const QString& text) {
        return hasPlaceMarker(text) ? text.arg(argument) : text;
    });
}

std::vector<TranslationText> TranslationLanguage::linesOf(QString stringId, QString argument) const
{
    return substitutedLines(stringId, [&argument](const QString& text) {
        return hasPlaceMarker(text) ? text.arg(argument) : text;
    });
}
