#pragma once

#include "keys/KeyEngine.h"

#include <QString>
#include <QVector>

class InputKeyCode;
class KeyState;

// One key combination of the key configuration file: hold keys that must all be down, press
// keys that must all have gone down in the key record being examined, and the command run
// for it.
//
// Text form, one configuration line: "hold,keys:press,keys:command". The line is cut at its
// first two colons; the command is the rest, verbatim.
class KeySequence
{
public:
    KeySequence();
    // Parses one configuration line. Check isValid() afterwards.
    explicit KeySequence(QString line);

    bool isValid() const;

    QString getCommand() const { return command; }

    void addHoldKey(const InputKeyCode* key);
    void addPressKey(const InputKeyCode* key);
    QVector<const InputKeyCode*> getHoldKeys() const { return holdKeys; }
    QVector<const InputKeyCode*> getPressKeys() const { return pressKeys; }

    // Whether the key state matches: every hold key down, every press key gone down in the
    // key record being examined.
    bool checkForValidSequence(const KeyState& keys) const;
    // The keys as the key engine matches them.
    KeyEngine::Combination toCombination() const;
    // Names the line: two sequences with the same keys and command have the same identity.
    QString identity() const;

    // One comma-separated key field. An unknown name fails the whole field:
    // *ok is false and the keys before it are returned.
    static QVector<const InputKeyCode*> parseKeys(QString text, bool* ok);

private:
    QVector<const InputKeyCode*> holdKeys;
    QVector<const InputKeyCode*> pressKeys;
    QString command;
};
