#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include "translation/TranslationText.h"

#include <vector>

class TranslationString;

// The overlay's strings in one language, by string id. It owns its strings
// and hands out their lines as values, with the arguments put in; the overlay
// places and draws them.
class TranslationLanguage
{
public:
    explicit TranslationLanguage(QString id);
    ~TranslationLanguage();

    TranslationLanguage(const TranslationLanguage&) = delete;
    TranslationLanguage& operator=(const TranslationLanguage&) = delete;

    QString getId() const { return id; }
    // The string with this id, or null.
    TranslationString* getString(QString stringId) const;
    // The ids of all strings, sorted.
    QStringList getStringIds() const;
    // Takes the string over; a null string or one whose id is taken is
    // refused (logged) and stays with the caller.
    void addString(TranslationString* string);

    // The lines of the string, in order, none when it is missing; the int and
    // QString forms put their argument into each line's "%1". Every call is
    // logged, found or not.
    std::vector<TranslationText> linesOf(QString stringId) const;
    std::vector<TranslationText> linesOf(QString stringId, int argument) const;
    std::vector<TranslationText> linesOf(QString stringId, QString argument) const;

private:
    template <typename Substitute>
    std::vector<TranslationText> substitutedLines(const QString& stringId,
                                                  Substitute substitute) const;

    QString id;
    QHash<QString, TranslationString*> strings;
};
