#pragma once

#include "overlay/XcbHandles.h"

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QRect>
#include <QString>

#include <xcb/xcb.h>

// A test's own client of an X display, to read back what the code under test
// did there: the windows on the root and their stacking order, attributes,
// geometry and properties, the pointer's current cursor and the pixels on the
// screen.
class XDisplayProbe
{
public:
    struct Property
    {
        xcb_atom_t type = XCB_NONE;
        int format = 0;
        QByteArray value;
    };

    explicit XDisplayProbe(const QString& displayName);

    bool isConnected() const;
    xcb_connection_t* getConnection() const { return connection.get(); }
    xcb_window_t getRoot() const { return root; }

    xcb_atom_t atom(const char* name) const;
    QString atomName(xcb_atom_t atom) const;
    // The children of the root window, from the bottom of the stack to the top.
    QList<xcb_window_t> topLevelWindows() const;
    // The top-level windows whose WM_NAME is `name`.
    QList<xcb_window_t> windowsNamed(const QByteArray& name) const;
    XcbPointer<xcb_get_window_attributes_reply_t> attributes(xcb_window_t window) const;
    QRect geometry(xcb_window_t window) const;
    // -1 when the window does not exist.
    int borderWidth(xcb_window_t window) const;
    // The whole property; type XCB_NONE when it is not set.
    Property property(xcb_window_t window, xcb_atom_t name) const;
    void deleteProperty(xcb_window_t window, xcb_atom_t name) const;
    // The property's 32-bit values.
    static QList<uint32_t> values32(const Property& property);
    // The pointer's current cursor as XFixes reports it (ARGB32); null when
    // the server has no XFixes.
    QImage cursorImage() const;
    // The pixels of the screen in `area`: Format_RGB32 on 24-bit screens,
    // Format_RGB16 on 16-bit ones.
    QImage screenshot(const QRect& area) const;
    // How many pixels of the picture's area are near white (each of red,
    // green and blue above 200): the overlay draws its texts white.
    static int whitePixels(const QImage& picture, const QRect& area);
    // The first event code of RandR, 0 when the server lacks it.
    uint8_t randrEventBase() const;
    // Sends a RandR screen-change notification with this size to the window's owner.
    void sendScreenChange(xcb_window_t window, int width, int height) const;
    // Waits until the server has handled every request sent so far.
    void sync() const;

    // Takes the window manager's place (SubstructureRedirect on the root), so
    // that the requests sent to the window manager arrive here.
    bool becomeWindowManager() const;
    struct WmStateRequest
    {
        xcb_window_t window;
        uint32_t action;
        xcb_atom_t state;
    };
    // The _NET_WM_STATE client messages received since the last call.
    QList<WmStateRequest> takeWmStateRequests() const;
    // Maps a black override-redirect window of this client over the area.
    xcb_window_t mapWindow(const QRect& area) const;
    // Paints the area of another client's window black; it stays so until
    // that client draws there again.
    void paintBlack(xcb_window_t window, const QRect& area) const;

private:
    XcbConnection connection;
    xcb_window_t root = XCB_NONE;
    int rootDepth = 0;
    uint32_t blackPixel = 0;
};
