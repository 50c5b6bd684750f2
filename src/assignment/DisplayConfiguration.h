#pragma once

#include "assignment/XcbHandles.h"

#include <QImage>
#include <QObject>
#include <QString>
#include <QVector>

#include <xcb/xcb.h>

#include <cstdint>

class DBusInterface;
class EventDevice;
class QDeadlineTimer;
class QPainter;
class Selvane;
class TranslationLanguage;

// The on-screen side of assigning one station's keyboard and mouse. It owns a
// full-screen overlay window on the station's X display (:displayId) that asks
// the user to press the station's assignment key or to click, in the language
// of the user of that station. When the assignment action reports that key on
// some unassigned device, it tells the platform's assignment service, moves on
// to its next state and emits keyboardAssigned or mouseAssigned.
//
// Everything runs on the main thread: update() polls X events and never
// blocks; the only waits are the D-Bus calls for the locale, the device counts
// and the station tags, and the atom replies when the display is opened, each
// bounded to 2 s. A server that stops reading can still hold the thread in
// xcb_connect(), in the extension queries and in any write once its socket is
// full (the upload of a picture fills it at once).
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

    // Asks the session controller for the locale of the display's user and
    // chooses the language; the display is opened later, by openDisplay() or
    // the first update().
    DisplayConfiguration(DBusInterface& dbus, const Selvane& central, OverlayImage overlayImage,
                         int displayId, int stationId);
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
    // The composed picture and its scale from the background's pixel space.
    const QImage& getImage() const { return image; }
    double getScaleX() const { return scaleX; }
    double getScaleY() const { return scaleY; }

    // The assignment key was pressed on `device`.
    void assignmentKeyPressed(const EventDevice* device);
    void configureKeyboard();
    // busy: show the please-wait picture, which accepts no click.
    void configureMouse(bool busy);
    // One step: opens the display when needed, handles the pending X events
    // and rebuilds the picture when asked to.
    void update();
    // Rebuilds the picture at the next update(), e.g. after the counts changed.
    void recreateImage() { needsNewImage = true; }

    // The X side.
    bool openDisplay();
    // The atom asked for with `cookie`, read before the deadline; 0 without a reply.
    xcb_atom_t getAtom(const char* name, xcb_intern_atom_cookie_t cookie,
                       const QDeadlineTimer& deadline);
    void hideBorder(xcb_intern_atom_cookie_t motifWmHintsCookie, const QDeadlineTimer& deadline);
    void hideCursor();
    void raiseWindow();
    void setWmStateBeforeMapping(QVector<unsigned int> atoms);
    void setWmStateAfterMapping(unsigned int atom);
    bool createXImage();
    void redrawWindow();
    void closeDisplay();

    // The picture.
    bool loadImage(QString fileName);
    bool setupKeyboardImage();
    bool setupMouseImage(bool busy);
    void renderLabelOnKey(QPainter& painter);

    // The language.
    void determineLanguage(const Selvane& central, QString locale);
    // Registers the overlay's font; callable before the logger runs and more than once.
    static void initTranslations();

    static QString stateToString(State state);

Q_SIGNALS:
    void keyboardAssigned(DisplayConfiguration* displayConfiguration, const EventDevice* device);
    void mouseAssigned(DisplayConfiguration* displayConfiguration, const EventDevice* device);

private:
    void handleEvent(const xcb_generic_event_t& event);
    void requestWmStates();
    // Forgets the server's resources without a request: the server is gone.
    void dropDisplay();
    int countFromDatabase(const char* method);
    QString stationTag(const QString& tagName);

    OverlayImage overlayImage;
    State state = STATE_START;
    DBusInterface& dbus;
    int displayId;
    int stationId;
    XcbConnection connection;
    xcb_screen_t* screen = nullptr;
    xcb_window_t window = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    xcb_atom_t wmStateAtom = 0;
    xcb_atom_t wmStateAboveAtom = 0;
    xcb_atom_t wmStateStaysOnTopAtom = 0;
    bool needsNewImage = false;
    QImage image;
    double scaleX = 1.0;
    double scaleY = 1.0;
    xcb_pixmap_t pixmap = 0;
    xcb_gcontext_t gc = 0;
    const TranslationLanguage* language = nullptr;
    QString assignmentKey;
    uint8_t randrEventBase = 0;
};
