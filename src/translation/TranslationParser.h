#pragma once

#include "common/BaseParser.h"

#include <QHash>
#include <QString>

class TranslationLanguage;
class TranslationString;

// Reads the overlay's translation file into a table of languages:
//     <any-root>
//       <language id="de">
//         <string id="configure-keyboard">
//           <text font_size="24" pos_x="100" pos_y="200" value="..."/>
// The parser's depth is the element it is inside ("top", "language",
// "string", "text"). Elements anywhere else are ignored, with whatever they
// hold; the first language or string of an id wins over later duplicates.
class TranslationParser : public Orvanta::BaseParser
{
public:
    // The languages created are inserted into, and owned by, the table.
    explicit TranslationParser(QHash<QString, TranslationLanguage*>& languages);

    bool startElement(const QString& namespaceUri, const QString& localName,
                      const QString& qualifiedName, const QXmlAttributes& attributes) override;
    bool endElement(const QString& namespaceUri, const QString& localName,
                    const QString& qualifiedName) override;

private:
    QHash<QString, TranslationLanguage*>& languages;
    TranslationLanguage* currentLanguage = nullptr;
    TranslationString* currentString = nullptr;
};
