#pragma once

#include <QString>

class TranslationLanguage;

// Everything one station's overlay shows, as a value: the main thread fills it
// in (state, key, language and the platform's answers) and hands a copy to the
// station's thread, which composes and uploads it. Nothing in it points into
// the main thread's objects except `language`, whose strings are only read:
// the languages are never changed after start and outlive every station thread.
struct OverlayContent
{
    enum Step : int
    {
        STEP_KEYBOARD = 0,
        STEP_MOUSE = 1,
        STEP_MOUSE_BUSY = 2
    };

    // Which picture of its display this is; a later one replaces an earlier one.
    int generation = 0;
    Step step = STEP_KEYBOARD;
    int stationId = 0;
    // Null when the station's language has no strings: the background alone is shown.
    const TranslationLanguage* language = nullptr;
    // "KEY_F3", "KEY_A", "BTN_LEFT" or empty.
    QString assignmentKey;
    // What the keyboard step shows for assignmentKey, set by the station's
    // thread from its server's keyboard map ("Y" for KEY_Z on a German map);
    // empty: the part of assignmentKey after its last "_".
    QString keyLabel;
    // The release badge's file ("ALPHA.png", "BETA.png") or empty for none.
    QString badgeFile;
    QString stationName;
    QString stationLocation;
    // Keyboards in the keyboard step, mice in the mouse step.
    int available = 0;
    int assigned = 0;

    // The background picture of the step.
    QString backgroundFile() const
    {
        switch (step) {
        case STEP_KEYBOARD:
            return QStringLiteral("configure-keyboard.png");
        case STEP_MOUSE:
            return QStringLiteral("configure-mouse.png");
        case STEP_MOUSE_BUSY:
            return QStringLiteral("please-wait-mouse.png");
        }
        return QString();
    }
};
