#pragma once

#include "assignment/PlatformServices.h"
#include "overlay/ConnectionAttempts.h"
#include "overlay/OverlayContent.h"

#include <QObject>
#include <QString>

#include <memory>

class EventDevice;
class StationThread;
class TranslationLanguage;

namespace Orvanta {
class PendingCallGroup;
}

// The assignment of one station's keyboard and mouse on its X display
// (:displayId): the state machine, the station's assignment key, the language
// of the station's user and the platform's values for the overlay. When the
// assignment handler reports that key on some unassigned device, it tells the
// platform's assignment service, moves on to its next state and emits
// keyboardAssigned or mouseAssigned.
//
// Owned by the AssignmentHandler; every method runs on the main thread. It
// owns its StationThread and the pending call groups (its children). It never
// waits on the main thread: the platform is asked
// with pending calls (each picture's calls share one 2 s bound), and the
// overlay itself, the X connection with its window and the composition of
// the picture, runs on the station's own thread (StationThread), which is
// handed each picture as a value and reports back what happened to its server.
//
// A display that cannot be reached has no thread: each update() tries its
// socket without waiting (ConnectionAttempts paces the tries and their log
// lines), and the station's thread is started only when something listens
// there. When that thread cannot connect (the server does not answer its
// setup, or went away), it is stopped at the next update() and the display
// waits again.
class DisplayConfiguration : public QObject
{
    Q_OBJECT

public:
    enum State : int
    {
        STATE_START = 0,
        STATE_CONFIGURING_KEYBOARD = 1,
        STATE_KEYBOARD_CONFIGURED = 2,
        STATE_MOUSE_BUSY = 3,
        STATE_CONFIGURING_MOUSE = 4,
        STATE_MOUSE_CONFIGURED = 5
    };

    // The release badge stretched over the picture.
    enum OverlayImage : int
    {
        OVERLAY_IMAGE_ALPHA = 0,
        OVERLAY_IMAGE_BETA = 1,
        OVERLAY_IMAGE_NONE = 2
    };

    // Asks the session controller for the locale of the display's user; once
    // it answers (or its bound has passed) the language is chosen and the
    // station's thread opens the display.
    DisplayConfiguration(PlatformServices& platform, OverlayImage overlayImage, int displayId,
                         int stationId);
    // Stops the station's thread, which closes the overlay.
    ~DisplayConfiguration() override;

    DisplayConfiguration(const DisplayConfiguration&) = delete;
    DisplayConfiguration& operator=(const DisplayConfiguration&) = delete;

    State getState() const { return state; }
    int getDisplayId() const { return displayId; }
    int getStationId() const { return stationId; }
    // The name of the key ("KEY_F1", "KEY_A", "KEY_0") or button ("BTN_LEFT")
    // that claims a device for this display; empty when there is none.
    QString getAssignmentKey() const { return assignmentKey; }
    // The language of the overlay's texts, or null when none was found.
    const TranslationLanguage* getLanguage() const { return language; }
    // True once the locale was answered, or its bound has passed.
    bool isLanguageDetermined() const { return languageDetermined; }
    // True while the station's X server holds the overlay's connection.
    bool isDisplayConnected() const { return displayConnected; }
    // True while the overlay's picture is on the display's screen: the last picture handed to
    // the station's thread was shown, and the connection has not been lost since.
    bool isPictureShown() const { return displayConnected && pictureShown; }

    // The assignment key was pressed on `device`. False when the display does not take it
    // (it waits for no key now).
    bool assignmentKeyPressed(const EventDevice* device);
    void configureKeyboard();
    // busy: show the please-wait picture, which accepts no click.
    void configureMouse(bool busy);
    // Has the station's thread open the display as soon as the language is
    // chosen, without waiting for the first update().
    void openDisplay();
    // One periodic step: lets the station's thread handle its server's events
    // and starts the picture asked for by recreateImage().
    void update();
    // Composes the picture anew at the next update(), e.g. after the counts changed.
    void recreateImage() { needsNewImage = true; }

    // The language of the locale, looked up in the platform's languages.
    void determineLanguage(QString locale);
    // Registers the overlay's font; callable before the logger runs and more than once.
    static void initTranslations();

    static QString stateToString(State state);

Q_SIGNALS:
    void keyboardAssigned(DisplayConfiguration* displayConfiguration, const EventDevice* device);
    void mouseAssigned(DisplayConfiguration* displayConfiguration, const EventDevice* device);
    // Asked for the keyboard step while it waited for a click: the click is free again.
    void mouseStepAbandoned();
    // isPictureShown() changed.
    void pictureShownChanged();

private:
    void localeAnswered(const QString& locale);
    // Starts the station's thread when the display's socket takes a
    // connection; otherwise counts a failed attempt. Never waits.
    void tryToConnect();
    void takeStationReports();
    // Asks the platform for the values of the picture of the current state;
    // the picture is handed to the station once they are in.
    void requestPicture();
    void valuesArrived();
    // Forgets the calls of a picture that is no longer wanted; their late
    // answers are dropped.
    void dropValueCalls();

    OverlayImage overlayImage;
    State state = STATE_START;
    PlatformServices& platform;
    int displayId;
    int stationId;
    const TranslationLanguage* language = nullptr;
    QString assignmentKey;
    bool languageDetermined = false;
    bool openRequested = false;
    bool displayConnected = false;
    bool pictureShown = false;
    bool needsNewImage = false;
    // An update() found needsNewImage while a picture was under way: that
    // picture's end starts the next one.
    bool redrawAfterPicture = false;
    // The picture that is wanted; an older one is never shown.
    int wantedGeneration = 0;
    // The picture handed to the station and not done yet, or 0.
    int composingGeneration = 0;
    // The picture whose values are being asked for.
    OverlayContent requestedContent;
    // Children of this object, so that none outlives it.
    Orvanta::PendingCallGroup* localeCall = nullptr;
    Orvanta::PendingCallGroup* valueCalls = nullptr;
    ConnectionAttempts connectionAttempts;
    // Null while the display cannot be reached.
    std::unique_ptr<StationThread> station;
    // The station's thread could not connect: it is stopped at the next update().
    bool stationFailed = false;
};
