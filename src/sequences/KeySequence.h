#pragma once

#include <QString>
#include <QVector>

class AssignedDeviceHandler;
class EventDevice;
class InputKeyCode;
class KeySequenceAction;

// One key combination: hold keys that must all be down, press keys that must
// all have gone down in the key event being examined, and the action to fire.
//
// Text form, one configuration line: "hold,keys:press,keys:command". The line
// is cut at its first two colons; the command is the rest, verbatim.
class KeySequence
{
public:
    KeySequence();
    // Parses one configuration line; the action becomes a SystemCommandAction
    // recording its triggers with `handler`. Check isValid() afterwards.
    KeySequence(QString line, AssignedDeviceHandler* handler);
    ~KeySequence();

    KeySequence(const KeySequence&) = delete;
    KeySequence& operator=(const KeySequence&) = delete;

    bool isValid() const;

    KeySequenceAction* getAction() const { return action; }
    // Takes ownership; the previous action is deleted.
    void setAction(KeySequenceAction* newAction);

    void addHoldKey(const InputKeyCode* key);
    void addPressKey(const InputKeyCode* key);
    QVector<const InputKeyCode*> getHoldKeys() const { return holdKeys; }
    QVector<const InputKeyCode*> getPressKeys() const { return pressKeys; }

    // Performs the action and answers true when the device's key state matches.
    bool checkForValidSequence(const EventDevice* device) const;

    // One comma-separated key field. An unknown name fails the whole field:
    // *ok is false and the keys before it are returned.
    static QVector<const InputKeyCode*> parseKeys(QString text, bool* ok);

private:
    QVector<const InputKeyCode*> holdKeys;
    QVector<const InputKeyCode*> pressKeys;
    KeySequenceAction* action = nullptr;
};
