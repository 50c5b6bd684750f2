#include "translation/TranslationText.h"

#include <utility>

TranslationText::TranslationText(int size, int x, int y, QString line)
    : fontSize(size), posX(x), posY(y), text(std::move(line))
{
}
