#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

class QPainter;
class TranslationString;

// The overlay's strings in one language, by string id. It owns its strings
// and draws them: every line of a string in black "DejaVu Sans" at the line's
// own point size, at its position times the caller's scale factors.
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

    // Draws every line of the string; the int and QString forms put their
    // argument into each line's "%1". The painter keeps the pen and the font
    // of the last line.
    void renderString(QPainter& painter, double xScale, double yScale, QString stringId) const;
    void renderString(QPainter& painter, double xScale, double yScale, QString stringId,
                      int argument) const;
    void renderString(QPainter& painter, double xScale, double yScale, QString stringId,
                      QString argument) const;

private:
    template <typename Substitute>
    void drawLines(QPainter& painter, double xScale, double yScale, const QString& stringId,
                   Substitute substitute) const;

    QString id;
    QHash<QString, TranslationString*> strings;
};
