#pragma once

#include <QVector>

#include <xcb/xcb.h>

#include <cstdint>

class QDeadlineTimer;

// The overlay's window on a station's screen: full-screen, without border
// or cursor, named "Press F Key", above the others (override-redirect, and
// the window manager asked for "above" and "stays on top").
//
// Belongs to a StationDisplay, on its station's thread, like the connection
// it is given on every call.
class OverlayWindow
{
public:
    xcb_window_t id() const { return window; }
    bool exists() const { return window != 0; }

    // Creates, dresses and maps the window over the whole screen. Waits at
    // most 2 s for the atoms it needs.
    void create(xcb_connection_t* connection, const xcb_screen_t& screen, uint32_t width,
                uint32_t height);
    void raise(xcb_connection_t* connection);
    // Asks the window manager again for "above" and "stays on top".
    void requestWmStates(xcb_connection_t* connection, const xcb_screen_t& screen);
    void setWmStateBeforeMapping(xcb_connection_t* connection, QVector<unsigned int> atoms);
    void resize(xcb_connection_t* connection, uint32_t width, uint32_t height);
    void map(xcb_connection_t* connection);
    void unmap(xcb_connection_t* connection);
    void destroy(xcb_connection_t* connection);
    // Forgets the window without a request: the server is gone.
    void forget() { window = 0; }

private:
    // The atom asked for with `cookie`, read before the deadline; 0 without a reply.
    static xcb_atom_t getAtom(xcb_connection_t* connection, const char* name,
                              xcb_intern_atom_cookie_t cookie, const QDeadlineTimer& deadline);
    void hideBorder(xcb_connection_t* connection, xcb_intern_atom_cookie_t motifWmHintsCookie,
                    const QDeadlineTimer& deadline);
    void hideCursor(xcb_connection_t* connection);
    void setWmStateAfterMapping(xcb_connection_t* connection, const xcb_screen_t& screen,
                                unsigned int atom);

    xcb_window_t window = 0;
    xcb_atom_t wmStateAtom = 0;
    xcb_atom_t wmStateAboveAtom = 0;
    xcb_atom_t wmStateStaysOnTopAtom = 0;
};
