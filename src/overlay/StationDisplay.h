#pragma once

#include "common/OwnedFd.h"
#include "overlay/OverlayContent.h"
#include "overlay/OverlayText.h"
#include "overlay/OverlayWindow.h"
#include "overlay/ServerPicture.h"
#include "overlay/ServerSetupCheck.h"
#include "overlay/StationKeymap.h"
#include "overlay/XcbHandles.h"

#include <QVector>

#include <xcb/xcb.h>

#include <cstdint>
#include <optional>
#include <vector>

// One station's X side: the connection to display :displayId, the full-screen
// overlay window (OverlayWindow), the picture composed at the screen's size
// and kept on the server (ServerPicture: the background once per step and
// size, then only the texts that changed), and the server's events (map, visibility, expose, RandR
// size changes, keyboard map changes). It reconnects when the server was lost. The key to press is
// labelled as the server's keyboard map has it (StationKeymap), and drawn anew when a new map
// changes that label.
//
// Owned by StationThread::run(), a local of the station's thread: every
// method runs on that thread, which
// alone touches the connection: a server that stops reading can hold that
// thread in a write, never another station or the main thread. What happens
// (connected, lost, a new size, a picture done) is told to the Listener.
class StationDisplay
{
public:
    // Hears what happens to the display, on the station's thread.
    class Listener
    {
    public:
        virtual ~Listener() = default;
        // The socket to the server is open and the X setup is being read; the
        // listener may shut `controlFd` down to end a connection that takes
        // too long or a write that never ends. It owns the descriptor.
        virtual void socketOpened(int controlFd) = 0;
        // The setup was read (or failed): connecting is over.
        virtual void connectFinished() = 0;
        // The connection ends: the descriptor given to socketOpened must go now.
        virtual void socketClosing() = 0;
        // An update could not connect to the display (which is then not logged).
        virtual void connectFailed() = 0;
        virtual void connected(uint32_t width, uint32_t height) = 0;
        virtual void lost() = 0;
        virtual void screenSizeChanged(uint32_t width, uint32_t height) = 0;
    };

    // Without a listener nothing is told; the display is not opened yet.
    explicit StationDisplay(int displayId, Listener* listener = nullptr);
    ~StationDisplay();

    StationDisplay(const StationDisplay&) = delete;
    StationDisplay& operator=(const StationDisplay&) = delete;

    int getDisplayId() const { return displayId; }
    bool isOpen() const { return static_cast<bool>(connection); }
    uint32_t getWidth() const { return width; }
    uint32_t getHeight() const { return height; }
    // Bytes of pixels sent to the server since the last call.
    uint64_t takeBytesPut() { return serverPicture.takeBytesPut(); }
    // The layout of the server's keyboard map, as its rules name it; empty
    // when the map could not be read.
    QString getKeyboardLayout() const { return keymap.getLayoutName(); }

    // The next opening uses `socket`, connected to the display already,
    // instead of connecting anew; the display owns it from now on.
    void useSocket(Orvanta::OwnedFd socket) { connectedSocket = std::move(socket); }

    // One periodic step: opens the display when needed, notices a lost
    // server, raises the window and handles the pending X events.
    void update();
    // Composes `content` and shows it: the whole background when the step or
    // the size changed, otherwise only the texts that differ from the picture
    // shown. False when there is no connection, no screen, no background or
    // the upload could not be made.
    bool show(const OverlayContent& content);

    bool openDisplay();
    void closeDisplay();
    void setWmStateBeforeMapping(QVector<unsigned int> atoms);

private:
    // Checks the server's setup (ServerSetupCheck) and takes its first screen;
    // false, logged, when the display is refused. A screen too large is taken
    // all the same, so that a RandR change to a size that fits can use it.
    bool acceptSetup();
    // The Warning that says why `verdict` refuses the display; nothing for a usable one.
    void logRefusal() const;
    void selectScreenChanges();
    // Creates the overlay window on the accepted screen and reads its keyboard map.
    void createWindow();
    // A screen refused after a RandR change shows nothing until the next change.
    void hideWindow();
    void handleEvent(const xcb_generic_event_t& event);
    void loadKeymap();
    // Logs a label that differs from the US one, once per keyboard step.
    void logKeyLabel(const OverlayContent& content);
    // Forgets the server's resources without a request: the server is gone.
    void dropDisplay();
    void releaseConnection();

    int displayId;
    Listener* listener;
    Orvanta::OwnedFd connectedSocket;
    XcbConnection connection;
    // The first screen's record in the connection's setup, once checked.
    const xcb_screen_t* screen = nullptr;
    OverlayWindow window;
    uint32_t width = 0;
    uint32_t height = 0;
    ServerPicture serverPicture;
    StationKeymap keymap;
    bool keymapChanged = false;
    // The content of the picture on the screen, with its key label, and its texts.
    OverlayContent shownContent;
    std::vector<OverlayText> shownTexts;
    // The key, label and layout last logged in this keyboard step.
    QString loggedKeyLabel;
    uint8_t randrEventBase = 0;
    // The check of the connection's setup, which it reads from xcb's copy.
    std::optional<ServerSetupCheck> setupCheck;
    // At the screen's current size; the display is drawn on only when USABLE.
    ServerSetupCheck::Verdict verdict = ServerSetupCheck::Verdict::USABLE;
};
