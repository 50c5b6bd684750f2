#include "overlay/OverlayWindow.h"

#include "common/Logger.h"
#include "overlay/XcbHandles.h"

#include <QDeadlineTimer>

#include <xcb/xcbext.h>

#include <array>
#include <cstring>
#include <poll.h>

namespace {
// The overlay's log lines belong to the display configuration, whichever
// thread writes them.
constexpr char logSource[] = "DisplayConfiguration";

constexpr char windowName[] = "Press F Key";
constexpr char motifWmHintsName[] = "_MOTIF_WM_HINTS";
// _MOTIF_WM_HINTS: flags (2: the decorations field is valid), functions,
// decorations (none), input mode, status.
constexpr std::array<uint32_t, 5> motifNoDecorations = {2, 0, 0, 0, 0};
constexpr uint32_t netWmStateAdd = 1;

// The longest the station's thread waits for the server's atom replies when
// it opens a display, the same bound as for a platform service.
constexpr int atomReplyTimeoutMs = 2000;

xcb_intern_atom_cookie_t internAtom(xcb_connection_t* c, const char* name)
{
    return xcb_intern_atom(c, 0, static_cast<uint16_t>(strlen(name)), name);
}

// The reply of an atom request, read without blocking until the deadline.
// xcb_intern_atom_reply() would wait as long as the server takes, for ever
// when it is stopped. Null when there is no reply by then; a late reply is
// then thrown away by xcb when it comes.
XcbPointer<xcb_intern_atom_reply_t> waitForAtomReply(xcb_connection_t* c,
                                                     xcb_intern_atom_cookie_t cookie,
                                                     const QDeadlineTimer& deadline)
{
    pollfd readable{xcb_get_file_descriptor(c), POLLIN, 0};
    for (;;) {
        void* reply = nullptr;
        xcb_generic_error_t* error = nullptr;
        if (xcb_poll_for_reply(c, cookie.sequence, &reply, &error)) {
            const XcbPointer<xcb_generic_error_t> ignoredError(error);
            return XcbPointer<xcb_intern_atom_reply_t>(
                static_cast<xcb_intern_atom_reply_t*>(reply));
        }
        const qint64 left = deadline.remainingTime();
        if (left == 0) {
            xcb_discard_reply(c, cookie.sequence);
            return nullptr;
        }
        poll(&readable, 1, static_cast<int>(left));
    }
}
} // namespace

void OverlayWindow::create(xcb_connection_t* c, const xcb_screen_t& screen, uint32_t width,
                           uint32_t height)
{
    window = xcb_generate_id(c);
    const std::array<uint32_t, 2> windowValues = {
        screen.white_pixel, XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_VISIBILITY_CHANGE |
                                XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(c, screen.root_depth, window, screen.root, 0, 0, static_cast<uint16_t>(width),
                      static_cast<uint16_t>(height), 1, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      screen.root_visual, XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK,
                      windowValues.data());

    const uint32_t overrideRedirect = 1;
    xcb_change_window_attributes(c, window, XCB_CW_OVERRIDE_REDIRECT, &overrideRedirect);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        sizeof(windowName) - 1, windowName);

    // All four atoms are asked for before any reply is read: one round trip,
    // and one deadline for the lot.
    const std::array<const char*, 3> stateNames = {"_NET_WM_STATE", "_NET_WM_STATE_ABOVE",
                                                   "_NET_WM_STATE_STAYS_ON_TOP"};
    std::array<xcb_intern_atom_cookie_t, 3> stateCookies{};
    for (size_t i = 0; i < stateNames.size(); ++i) {
        stateCookies[i] = internAtom(c, stateNames[i]);
    }
    const xcb_intern_atom_cookie_t motifCookie = internAtom(c, motifWmHintsName);
    xcb_flush(c);
    const QDeadlineTimer deadline(atomReplyTimeoutMs);
    wmStateAtom = getAtom(c, stateNames[0], stateCookies[0], deadline);
    wmStateAboveAtom = getAtom(c, stateNames[1], stateCookies[1], deadline);
    wmStateStaysOnTopAtom = getAtom(c, stateNames[2], stateCookies[2], deadline);

    hideBorder(c, motifCookie, deadline);
    hideCursor(c);
    raise(c);
    setWmStateBeforeMapping(c, {wmStateAboveAtom, wmStateStaysOnTopAtom});

    xcb_map_window(c, window);
    xcb_flush(c);
}

xcb_atom_t OverlayWindow::getAtom(xcb_connection_t* c, const char* name,
                                  xcb_intern_atom_cookie_t cookie, const QDeadlineTimer& deadline)
{
    const XcbPointer<xcb_intern_atom_reply_t> reply = waitForAtomReply(c, cookie, deadline);
    if (!reply) {
        SELVANE_LOG(LEVEL_WARNING, "Could not get atom reply for atom: %s", name);
        return 0;
    }
    return reply->atom;
}

void OverlayWindow::hideBorder(xcb_connection_t* c, xcb_intern_atom_cookie_t motifWmHintsCookie,
                               const QDeadlineTimer& deadline)
{
    const XcbPointer<xcb_intern_atom_reply_t> reply =
        waitForAtomReply(c, motifWmHintsCookie, deadline);
    if (!reply) {
        return;
    }
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, reply->atom, reply->atom, 32,
                        motifNoDecorations.size(), motifNoDecorations.data());
    xcb_flush(c);
}

void OverlayWindow::hideCursor(xcb_connection_t* c)
{
    // A 1x1 cursor whose mask shows nothing.
    const xcb_pixmap_t source = xcb_generate_id(c);
    const xcb_pixmap_t mask = xcb_generate_id(c);
    xcb_create_pixmap(c, 1, source, window, 1, 1);
    xcb_create_pixmap(c, 1, mask, window, 1, 1);

    // The graphics context must have the depth of the pixmap it draws into.
    const xcb_gcontext_t maskGc = xcb_generate_id(c);
    xcb_create_gc(c, maskGc, mask, 0, nullptr);
    const uint32_t foreground = 0;
    xcb_change_gc(c, maskGc, XCB_GC_FOREGROUND, &foreground);
    const xcb_point_t origin = {0, 0};
    xcb_poly_point(c, XCB_COORD_MODE_ORIGIN, mask, maskGc, 1, &origin);
    xcb_free_gc(c, maskGc);

    const xcb_cursor_t cursor = xcb_generate_id(c);
    xcb_create_cursor(c, cursor, source, mask, 0, 0, 0, 0, 0, 0, 0, 0);
    xcb_change_window_attributes(c, window, XCB_CW_CURSOR, &cursor);
    xcb_free_cursor(c, cursor);
    xcb_free_pixmap(c, mask);
    xcb_free_pixmap(c, source);
    xcb_flush(c);
}

void OverlayWindow::raise(xcb_connection_t* c)
{
    if (!window) {
        return;
    }
    const uint32_t above = XCB_STACK_MODE_ABOVE;
    xcb_configure_window(c, window, XCB_CONFIG_WINDOW_STACK_MODE, &above);
    xcb_flush(c);
}

void OverlayWindow::requestWmStates(xcb_connection_t* c, const xcb_screen_t& screen)
{
    raise(c);
    setWmStateAfterMapping(c, screen, wmStateAboveAtom);
    setWmStateAfterMapping(c, screen, wmStateStaysOnTopAtom);
}

void OverlayWindow::setWmStateBeforeMapping(xcb_connection_t* c, QVector<unsigned int> atoms)
{
    if (atoms.isEmpty()) {
        return;
    }
    // The EWMH way to set states on a window that is not mapped yet.
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, wmStateAtom, XCB_ATOM_ATOM, 32,
                        static_cast<uint32_t>(atoms.size()), atoms.constData());
    xcb_flush(c);
}

void OverlayWindow::setWmStateAfterMapping(xcb_connection_t* c, const xcb_screen_t& screen,
                                           unsigned int atom)
{
    // Once mapped, the window manager owns _NET_WM_STATE: ask it to add the state.
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = window;
    message.type = wmStateAtom;
    message.data.data32[0] = netWmStateAdd;
    message.data.data32[1] = atom;
    xcb_send_event(c, 0, screen.root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                   reinterpret_cast<const char*>(&message));
    xcb_flush(c);
}

void OverlayWindow::resize(xcb_connection_t* c, uint32_t width, uint32_t height)
{
    const std::array<uint32_t, 2> size = {width, height};
    xcb_configure_window(c, window, XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT,
                         size.data());
}

void OverlayWindow::map(xcb_connection_t* c)
{
    xcb_map_window(c, window);
}

void OverlayWindow::unmap(xcb_connection_t* c)
{
    if (window) {
        xcb_unmap_window(c, window);
    }
}

void OverlayWindow::destroy(xcb_connection_t* c)
{
    if (window) {
        xcb_destroy_window(c, window);
        window = 0;
    }
}
