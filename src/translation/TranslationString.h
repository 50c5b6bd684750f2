#pragma once

#include <QString>
#include <QVector>

class TranslationText;

// A translatable string: the lines drawn for one id, in file order. It owns
// its lines.
class TranslationString
{
public:
    explicit TranslationString(QString id);
    ~TranslationString();

    TranslationString(const TranslationString&) = delete;
    TranslationString& operator=(const TranslationString&) = delete;

    QString getId() const { return id; }
    int getNumText() const;
    // The line at index, or null (logged) for an index out of range.
    TranslationText* getText(int index) const;
    // Takes the line over; a null or already added line is refused (logged)
    // and stays with the caller.
    void addText(TranslationText* text);

private:
    QString id;
    QVector<TranslationText*> texts;
};
