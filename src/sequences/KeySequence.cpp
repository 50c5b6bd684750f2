#include "sequences/KeySequence.h"

#include "common/Logger.h"
#include "input/InputKeyCode.h"
#include "keys/KeyState.h"

#include <QStringList>

namespace {
constexpr char logSource[] = "KeySequence";
} // namespace

KeySequence::KeySequence() = default;

KeySequence::KeySequence(QString line)
{
    const int firstColon = line.indexOf(QLatin1Char(':'));
    const int secondColon = firstColon < 0 ? -1 : line.indexOf(QLatin1Char(':'), firstColon + 1);
    const QString text = secondColon < 0 ? QString() : line.mid(secondColon + 1);
    if (text.isEmpty()) {
        SELVANE_LOG(LEVEL_WARNING, "Could not parse line from configuration file: " + line);
        return;
    }

    bool ok = false;
    holdKeys = parseKeys(line.left(firstColon), &ok);
    if (!ok) {
        SELVANE_LOG(LEVEL_ERROR, "Could not parse hold key values");
        return;
    }
    pressKeys = parseKeys(line.mid(firstColon + 1, secondColon - firstColon - 1), &ok);
    if (!ok) {
        SELVANE_LOG(LEVEL_ERROR, "Could not parse press key values");
        holdKeys.clear();
        return;
    }
    command = text;
}

bool KeySequence::isValid() const
{
    return !holdKeys.isEmpty() && !pressKeys.isEmpty() && !command.isEmpty();
}

void KeySequence::addHoldKey(const InputKeyCode* key)
{
    if (!key) {
        SELVANE_LOG(LEVEL_BUG, "key is NULL");
        return;
    }
    if (!holdKeys.contains(key)) {
        holdKeys.append(key);
    }
}

void KeySequence::addPressKey(const InputKeyCode* key)
{
    if (!key) {
        SELVANE_LOG(LEVEL_BUG, "key is NULL");
        return;
    }
    if (!pressKeys.contains(key)) {
        pressKeys.append(key);
    }
}

bool KeySequence::checkForValidSequence(const KeyState& keys) const
{
    return toCombination().matches(keys);
}

namespace {
std::vector<int> codesOf(const QVector<const InputKeyCode*>& keys)
{
    std::vector<int> codes;
    codes.reserve(static_cast<std::size_t>(keys.size()));
    for (const InputKeyCode* key : keys) {
        codes.push_back(key->getCode());
    }
    return codes;
}

QString codeList(const QVector<const InputKeyCode*>& keys)
{
    QStringList codes;
    for (const InputKeyCode* key : keys) {
        codes.append(QString::number(key->getCode()));
    }
    return codes.join(QLatin1Char(','));
}
} // namespace

KeyEngine::Combination KeySequence::toCombination() const
{
    return {codesOf(holdKeys), codesOf(pressKeys)};
}

QString KeySequence::identity() const
{
    return codeList(holdKeys) + QLatin1Char(':') + codeList(pressKeys) + QLatin1Char(':') + command;
}

QVector<const InputKeyCode*> KeySequence::parseKeys(QString text, bool* ok)
{
    QVector<const InputKeyCode*> keys;
    if (!ok) {
        SELVANE_LOG(LEVEL_BUG, "ok is NULL");
        return keys;
    }
    const QStringList names = text.split(QLatin1Char(','), Qt::SkipEmptyParts, Qt::CaseSensitive);
    for (const QString& name : names) {
        const InputKeyCode* key = InputKeyCode::keyCodeFindByName(name);
        if (!key) {
            // The wording says "ignoring", yet the whole field is rejected.
            SELVANE_LOG(LEVEL_WARNING, "Cannot find key for " + name + ".  Ignoring key.");
            *ok = false;
            return keys;
        }
        keys.append(key);
    }
    *ok = true;
    return keys;
}
