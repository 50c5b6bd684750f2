#include "sequences/KeySequence.h"

#include "common/Logger.h"
#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "sequences/SystemCommandAction.h"

#include <QStringList>

namespace {
constexpr char logSource[] = "KeySequence";
} // namespace

KeySequence::KeySequence() = default;

KeySequence::KeySequence(QString line, AssignedDeviceHandler* handler)
{
    const int firstColon = line.indexOf(QLatin1Char(':'));
    const int secondColon = firstColon < 0 ? -1 : line.indexOf(QLatin1Char(':'), firstColon + 1);
    const QString command = secondColon < 0 ? QString() : line.mid(secondColon + 1);
    if (command.isEmpty()) {
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
    setAction(new SystemCommandAction(command, handler));
}

KeySequence::~KeySequence()
{
    delete action;
}

bool KeySequence::isValid() const
{
    return !holdKeys.isEmpty() && !pressKeys.isEmpty() && action;
}

void KeySequence::setAction(KeySequenceAction* newAction)
{
    if (newAction == action) {
        return;
    }
    delete action;
    action = newAction;
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

bool KeySequence::checkForValidSequence(const EventDevice* device) const
{
    if (!device) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
        return false;
    }
    if (!action) {
        return false;
    }
    for (const InputKeyCode* key : holdKeys) {
        if (!device->isKeyPressed(key->getCode())) {
            return false;
        }
    }
    // Only the key whose press is being reported counts as just pressed, so a
    // match happens on the press that completes the combination.
    for (const InputKeyCode* key : pressKeys) {
        if (!device->isKeyPressedOnce(key->getCode())) {
            return false;
        }
    }
    action->performAction(device);
    return true;
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
