#pragma once

#include "overlay/BackgroundLibrary.h"
#include "overlay/ServerSetupCheck.h"

#include <QImage>
#include <QPoint>
#include <QRect>

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>

// A station's picture on its X server: a pixmap of the screen's size that
// gets the step's background once, whole, and then only the parts that
// change (the texts' rectangles); the window is painted from it. So a count
// change sends some kilobytes instead of the whole screen, and the daemon
// keeps no copy of the screen: the background it came from is shared.
//
// Belongs to a StationDisplay, on its station's thread, like the connection.
class ServerPicture
{
public:
    // Bytes of pixels sent to the server since the last call.
    uint64_t takeBytesPut() { return std::exchange(bytesPut, 0); }

    // True when the pixmap holds `background` (so only texts need putting).
    bool holds(const ScaledBackground& background) const
    {
        return pixmap && uploaded.get() == &background;
    }
    // Makes a pixmap of the background's size and puts the background into
    // it; false, logged, when the server's format or size does not allow it.
    bool uploadBackground(xcb_connection_t* connection, xcb_window_t window,
                          const xcb_screen_t& screen, const ServerSetupCheck::PixmapFormat& format,
                          std::shared_ptr<const ScaledBackground> background);
    // Puts `part`, premultiplied ARGB over the held background, at `at`.
    void put(xcb_connection_t* connection, const QImage& part, QPoint at);
    void copyToWindow(xcb_connection_t* connection, xcb_window_t window, const QRect& area) const;
    // Frees the pixmap on the server.
    void release(xcb_connection_t* connection);
    // Forgets the pixmap without a request: the server is gone.
    void forget();

private:
    bool putRows(xcb_connection_t* connection, const QImage& image, QPoint at);

    xcb_pixmap_t pixmap = 0;
    xcb_gcontext_t gc = 0;
    ServerSetupCheck::PixmapFormat format;
    std::shared_ptr<const ScaledBackground> uploaded;
    uint64_t bytesPut = 0;
};
