#include "translation/TranslationParser.h"

#include "common/Logger.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationString.h"
#include "translation/TranslationText.h"

namespace {
constexpr char logSource[] = "TranslationParser";

const QString topDepth = QStringLiteral("top");
const QString languageElement = QStringLiteral("language");
const QString stringElement = QStringLiteral("string");
const QString textElement = QStringLiteral("text");

constexpr int defaultFontSize = 12;
constexpr int defaultPosition = 0;
} // namespace

TranslationParser::TranslationParser(QHash<QString, TranslationLanguage*>& table) : languages(table)
{
}

// A duplicate or an element without id leaves the depth as it is, so its
// children arrive in a depth where they mean nothing and are skipped.
bool TranslationParser::startElement(const QString&, const QString&, const QString& qualifiedName,
                                     const QXmlAttributes& attributes)
{
    const QString state = getDepth();
    if (state == topDepth && qualifiedName == languageElement) {
        const QString id = grabString(QStringLiteral("id"), attributes, true, QString());
        if (id.isEmpty()) {
            SELVANE_LOG(LEVEL_WARNING, "id is empty");
        } else if (languages.contains(id)) {
            SELVANE_LOG(LEVEL_WARNING,
                        "Duplicate language '" + id + "' found.  The duplicate is being ignored");
        } else {
            currentLanguage = new TranslationLanguage(id);
            languages.insert(id, currentLanguage);
            setDepth(languageElement);
        }
    } else if (state == languageElement && qualifiedName == stringElement) {
        const QString id = grabString(QStringLiteral("id"), attributes, true, QString());
        if (id.isEmpty()) {
            SELVANE_LOG(LEVEL_WARNING, "id is empty");
        } else if (currentLanguage->getString(id)) {
            SELVANE_LOG(LEVEL_WARNING,
                        "Duplicate string '" + id + "' found.  The duplicate is being ignored");
        } else {
            currentString = new TranslationString(id);
            currentLanguage->addString(currentString);
            setDepth(stringElement);
        }
    } else if (state == stringElement && qualifiedName == textElement) {
        const int fontSize =
            grabInt(QStringLiteral("font_size"), attributes, true, defaultFontSize);
        const int posX = grabInt(QStringLiteral("pos_x"), attributes, true, defaultPosition);
        const int posY = grabInt(QStringLiteral("pos_y"), attributes, true, defaultPosition);
        const QString value = grabString(QStringLiteral("value"), attributes, true, QString());
        currentString->addText(new TranslationText(fontSize, posX, posY, value));
        setDepth(textElement);
    }
    return true;
}

bool TranslationParser::endElement(const QString&, const QString&, const QString& qualifiedName)
{
    const QString state = getDepth();
    if (state == languageElement && qualifiedName == languageElement) {
        currentLanguage = nullptr;
        setDepth(topDepth);
    } else if (state == stringElement && qualifiedName == stringElement) {
        currentString = nullptr;
        setDepth(languageElement);
    } else if (state == textElement && qualifiedName == textElement) {
        setDepth(stringElement);
    }
    return true;
}
