#include "translation/TranslationString.h"

#include "common/Logger.h"
#include "translation/TranslationText.h"

#include <utility>

namespace {
constexpr char logSource[] = "TranslationString";
} // namespace

TranslationString::TranslationString(QString stringId) : id(std::move(stringId)) {}

TranslationString::~TranslationString()
{
    qDeleteAll(texts);
}

int TranslationString::getNumText() const
{
    return static_cast<int>(texts.size());
}

TranslationText* TranslationString::getText(int index) const
{
    if (index < 0 || index >= getNumText()) {
        SELVANE_LOG(LEVEL_BUG, "index is invalid: %d (%d)", index, getNumText());
        return nullptr;
    }
    return texts.at(index);
}

void TranslationString::addText(TranslationText* text)
{
    if (!text) {
        SELVANE_LOG(LEVEL_BUG, "text is NULL");
        return;
    }
    if (texts.contains(text)) {
        SELVANE_LOG(LEVEL_BUG, "This text has already been added to the string");
        return;
    }
    texts.append(text);
}
