#pragma once

#include <QString>
#include <QVector>

// A Linux input key name ("KEY_F1", "BTN_LEFT") with its key code. The process-wide table in
// `keyCodes` is filled once by buildTable() before any key configuration is read and emptied by
// cleanupTable() at the end; entries are immutable and handed out as pointers to const.
class InputKeyCode
{
public:
    InputKeyCode(QString keyName, int keyCode);
    InputKeyCode(const InputKeyCode&) = delete;
    InputKeyCode& operator=(const InputKeyCode&) = delete;

    QString getName() const { return name; }
    int getCode() const { return code; }

    static void buildTable();
    static void cleanupTable();
    // The first entry whose name equals `name` exactly, or nullptr.
    static const InputKeyCode* keyCodeFindByName(QString name);

    // Owns its entries between buildTable() and cleanupTable().
    static QVector<const InputKeyCode*> keyCodes;

private:
    QString name;
    int code;
};
