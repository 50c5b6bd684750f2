#pragma once

#include <QString>

// One line of a translated string: its text, the point size of its font and
// the left end of its baseline in the overlay picture's unscaled pixels. The
// text may hold the place marker "%1" for the argument it is drawn with.
class TranslationText
{
public:
    TranslationText(int fontSize, int posX, int posY, QString text);

    int getFontSize() const { return fontSize; }
    int getPosX() const { return posX; }
    int getPosY() const { return posY; }
    QString getText() const { return text; }

private:
    int fontSize;
    int posX;
    int posY;
    QString text;
};
