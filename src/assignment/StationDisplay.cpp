#include "assignment/StationDisplay.h"

#include "assignment/DisplaySocket.h"
#include "common/Logger.h"

#include <QByteArray>
#include <QDeadlineTimer>

#include <X11/Xauth.h>
#include <xcb/randr.h>
#include <xcb/xcbext.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

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

// A PutImage request has a 24-byte header, 28 with the BIG-REQUESTS length.
constexpr uint32_t putImageHeaderBytes = 28;

// The visual type of the screen's root visual, or null.
const xcb_visualtype_t* findRootVisual(const xcb_screen_t* screen)
{
    for (auto depths = xcb_screen_allowed_depths_iterator(screen); depths.rem;
         xcb_depth_next(&depths)) {
        for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem;
             xcb_visualtype_next(&visuals)) {
            if (visuals.data->visual_id == screen->root_visual) {
                return visuals.data;
            }
        }
    }
    return nullptr;
}

// The server's pixmap format with this depth and pixel size, or null.
const xcb_format_t* findFormat(const xcb_setup_t* setup, uint8_t depth, uint8_t bitsPerPixel)
{
    const xcb_format_t* formats = xcb_setup_pixmap_formats(setup);
    const int count = xcb_setup_pixmap_formats_length(setup);
    for (int i = 0; i < count; ++i) {
        if (formats[i].depth == depth && formats[i].bits_per_pixel == bitsPerPixel) {
            return &formats[i];
        }
    }
    return nullptr;
}

// The rows of `upload`, one after the other, each padded to the server's
// scanline pad. Qt pads its rows to 32 bits, which is what the servers in use
// ask for; only another pad needs a copy.
QByteArray paddedRows(const QImage& upload, uint32_t stride)
{
    if (static_cast<uint32_t>(upload.bytesPerLine()) == stride) {
        return QByteArray::fromRawData(reinterpret_cast<const char*>(upload.constBits()),
                                       static_cast<int>(stride * upload.height()));
    }
    QByteArray rows(static_cast<int>(stride * upload.height()), '\0');
    const int used = qMin<int>(upload.bytesPerLine(), static_cast<int>(stride));
    for (int y = 0; y < upload.height(); ++y) {
        memcpy(rows.data() + static_cast<size_t>(y) * stride, upload.constScanLine(y), used);
    }
    return rows;
}

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

// The X authorisation for a local connection to the display, as xcb_connect()
// finds it: the best entry of the authority file for this host and display.
class LocalAuthorization
{
public:
    explicit LocalAuthorization(int displayId)
    {
        char host[256] = {};
        if (gethostname(host, sizeof(host) - 1) != 0) {
            return;
        }
        const QByteArray number = QByteArray::number(displayId);
        char cookieName[] = "MIT-MAGIC-COOKIE-1";
        char* names[] = {cookieName};
        int nameLengths[] = {static_cast<int>(sizeof(cookieName) - 1)};
        entry = XauGetBestAuthByAddr(FamilyLocal, static_cast<unsigned short>(strlen(host)), host,
                                     static_cast<unsigned short>(number.size()), number.constData(),
                                     1, names, nameLengths);
        if (entry) {
            info.namelen = entry->name_length;
            info.name = entry->name;
            info.datalen = entry->data_length;
            info.data = entry->data;
        }
    }
    ~LocalAuthorization()
    {
        if (entry) {
            XauDisposeAuth(entry);
        }
    }
    LocalAuthorization(const LocalAuthorization&) = delete;
    LocalAuthorization& operator=(const LocalAuthorization&) = delete;

    // Null when the server is to be asked without authorisation.
    xcb_auth_info_t* get() { return entry ? &info : nullptr; }

private:
    Xauth* entry = nullptr;
    xcb_auth_info_t info{};
};

} // namespace

StationDisplay::StationDisplay(int display, Listener* displayListener)
    : displayId(display), listener(displayListener)
{
}

StationDisplay::~StationDisplay()
{
    closeDisplay();
}

void StationDisplay::update()
{
    if (!connection) {
        if (!openDisplay()) {
            // A server without a screen keeps its connection: that is no failure to connect.
            if (listener && !connection) {
                listener->connectFailed();
            }
            return;
        }
        if (listener) {
            listener->connected(width, height);
        }
    }
    if (xcb_connection_has_error(connection.get())) {
        SELVANE_LOG(LEVEL_INFO, "Lost connection to display %d", displayId);
        dropDisplay();
        if (listener) {
            listener->lost();
        }
        return;
    }
    raiseWindow();
    while (XcbPointer<xcb_generic_event_t> event{xcb_poll_for_event(connection.get())}) {
        handleEvent(*event);
    }
    // One new map however many events told of it; the picture is drawn anew
    // only when the key's label changed.
    if (std::exchange(keymapChanged, false) && screen) {
        loadKeymap();
        if (shownContent.generation != 0 &&
            keymap.labelFor(shownContent.assignmentKey) != shownContent.keyLabel) {
            show(shownContent);
        }
    }
}

bool StationDisplay::show(const OverlayContent& content)
{
    if (!connection || !screen) {
        return false;
    }
    OverlayContent labelled = content;
    labelled.keyLabel = keymap.labelFor(content.assignmentKey);
    if (!composer.compose(labelled, width, height)) {
        return false;
    }
    logKeyLabel(labelled);
    shownContent = labelled;
    const bool created = createXImage();
    if (created) {
        redrawWindow();
    }
    return created;
}

void StationDisplay::logKeyLabel(const OverlayContent& content)
{
    if (content.step != OverlayContent::STEP_KEYBOARD) {
        loggedKeyLabel.clear();
        return;
    }
    if (content.keyLabel == content.assignmentKey.section(QLatin1Char('_'), -1)) {
        return;
    }
    const QString logged =
        QStringLiteral("%1 %2 %3")
            .arg(content.assignmentKey, content.keyLabel, keymap.getLayoutName());
    if (logged == loggedKeyLabel) {
        return;
    }
    loggedKeyLabel = logged;
    SELVANE_LOG(LEVEL_INFO,
                QStringLiteral("Station %1 shows key %2 for %3 (layout %4)")
                    .arg(content.stationId)
                    .arg(content.keyLabel, content.assignmentKey, keymap.getLayoutName()));
}

void StationDisplay::loadKeymap()
{
    if (!keymap.load(connection.get(), screen->root)) {
        SELVANE_LOG(LEVEL_INFO,
                    "Could not read the keyboard map of display :%d; keys are labelled as on a "
                    "US keyboard",
                    displayId);
    }
}

bool StationDisplay::loadImage(const QString& fileName)
{
    return composer.loadImage(fileName, QString(), width, height);
}

bool StationDisplay::openDisplay()
{
    if (connection) {
        return true;
    }
    // A socket of our own, so that the listener can end a setup that takes too
    // long, or later a write to a server that stopped reading, by shutting a
    // duplicate of it down: xcb owns the one it is given.
    const int fd = DisplaySocket::connect(displayId);
    const int controlFd = fd < 0 ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (controlFd < 0) {
        if (fd >= 0) {
            close(fd);
        }
        // A listener counts the failures and says what it makes of them.
        if (!listener) {
            SELVANE_LOG(LEVEL_WARNING, "Could not get connection to display :%d", displayId);
        }
        return false;
    }
    if (listener) {
        listener->socketOpened(controlFd);
    } else {
        close(controlFd);
    }
    LocalAuthorization authorization(displayId);
    XcbConnection opened(xcb_connect_to_fd(fd, authorization.get()));
    if (listener) {
        listener->connectFinished();
    }
    if (!opened || xcb_connection_has_error(opened.get())) {
        if (listener) {
            listener->socketClosing();
        }
        // A listener counts the failures and says what it makes of them.
        if (!listener) {
            SELVANE_LOG(LEVEL_WARNING, "Could not get connection to display :%d", displayId);
        }
        return false;
    }
    connection = std::move(opened);
    xcb_connection_t* c = connection.get();

    screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    if (!screen) {
        // The connection is kept: a server without a screen is not tried again.
        SELVANE_LOG(LEVEL_WARNING, "Could not find a screen to use on display :%d", displayId);
        return false;
    }
    width = screen->width_in_pixels;
    height = screen->height_in_pixels;

    window = xcb_generate_id(c);
    const std::array<uint32_t, 2> windowValues = {
        screen->white_pixel, XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_VISIBILITY_CHANGE |
                                 XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(c, screen->root_depth, window, screen->root, 0, 0,
                      static_cast<uint16_t>(width), static_cast<uint16_t>(height), 1,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, windowValues.data());

    xcb_randr_select_input(c, screen->root, XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE);
    const xcb_query_extension_reply_t* randr = xcb_get_extension_data(c, &xcb_randr_id);
    if (randr && randr->present) {
        randrEventBase = randr->first_event;
    }

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
    wmStateAtom = getAtom(stateNames[0], stateCookies[0], deadline);
    wmStateAboveAtom = getAtom(stateNames[1], stateCookies[1], deadline);
    wmStateStaysOnTopAtom = getAtom(stateNames[2], stateCookies[2], deadline);

    hideBorder(motifCookie, deadline);
    hideCursor();
    raiseWindow();
    setWmStateBeforeMapping({wmStateAboveAtom, wmStateStaysOnTopAtom});

    xcb_map_window(c, window);
    xcb_flush(c);
    loadKeymap();
    return true;
}

void StationDisplay::handleEvent(const xcb_generic_event_t& event)
{
    if (keymap.isMapChange(event)) {
        keymapChanged = true;
        return;
    }
    // The top bit only says that another client sent the event.
    const uint8_t code = event.response_type & 0x7f;
    switch (code) {
    case XCB_VISIBILITY_NOTIFY:
        if (reinterpret_cast<const xcb_visibility_notify_event_t&>(event).state ==
            XCB_VISIBILITY_UNOBSCURED) {
            return;
        }
        requestWmStates();
        return;
    case XCB_MAP_NOTIFY:
        requestWmStates();
        return;
    case XCB_EXPOSE:
        // The whole picture is copied whatever part was exposed.
        if (pixmap) {
            xcb_copy_area(connection.get(), pixmap, window, gc, 0, 0, 0, 0,
                          static_cast<uint16_t>(getImage().width()),
                          static_cast<uint16_t>(getImage().height()));
            xcb_flush(connection.get());
        }
        return;
    default:
        break;
    }
    // Before RandR is known, code 0 is an X error, not a screen change.
    if (randrEventBase == 0 || code != randrEventBase + XCB_RANDR_SCREEN_CHANGE_NOTIFY) {
        return;
    }
    const auto& change = reinterpret_cast<const xcb_randr_screen_change_notify_event_t&>(event);
    if (change.width == width && change.height == height) {
        return;
    }
    width = change.width;
    height = change.height;
    const std::array<uint32_t, 2> size = {width, height};
    xcb_configure_window(connection.get(), window,
                         XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, size.data());
    if (listener) {
        listener->screenSizeChanged(width, height);
    }
}

void StationDisplay::requestWmStates()
{
    raiseWindow();
    setWmStateAfterMapping(wmStateAboveAtom);
    setWmStateAfterMapping(wmStateStaysOnTopAtom);
}

xcb_atom_t StationDisplay::getAtom(const char* name, xcb_intern_atom_cookie_t cookie,
                                   const QDeadlineTimer& deadline)
{
    if (!name) {
        SELVANE_LOG(LEVEL_BUG, "atomName is NULL");
        return 0;
    }
    if (!connection) {
        return 0;
    }
    const XcbPointer<xcb_intern_atom_reply_t> reply =
        waitForAtomReply(connection.get(), cookie, deadline);
    if (!reply) {
        SELVANE_LOG(LEVEL_WARNING, "Could not get atom reply for atom: %s", name);
        return 0;
    }
    return reply->atom;
}

void StationDisplay::hideBorder(xcb_intern_atom_cookie_t motifWmHintsCookie,
                                const QDeadlineTimer& deadline)
{
    if (!connection) {
        return;
    }
    xcb_connection_t* c = connection.get();
    const XcbPointer<xcb_intern_atom_reply_t> reply =
        waitForAtomReply(c, motifWmHintsCookie, deadline);
    if (!reply) {
        return;
    }
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, reply->atom, reply->atom, 32,
                        motifNoDecorations.size(), motifNoDecorations.data());
    xcb_flush(c);
}

void StationDisplay::hideCursor()
{
    if (!connection) {
        return;
    }
    // A 1x1 cursor whose mask shows nothing.
    xcb_connection_t* c = connection.get();
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

void StationDisplay::raiseWindow()
{
    if (!connection || !window) {
        return;
    }
    const uint32_t above = XCB_STACK_MODE_ABOVE;
    xcb_configure_window(connection.get(), window, XCB_CONFIG_WINDOW_STACK_MODE, &above);
    xcb_flush(connection.get());
}

void StationDisplay::setWmStateBeforeMapping(QVector<unsigned int> atoms)
{
    if (atoms.isEmpty() || !connection) {
        return;
    }
    // The EWMH way to set states on a window that is not mapped yet.
    xcb_change_property(connection.get(), XCB_PROP_MODE_REPLACE, window, wmStateAtom, XCB_ATOM_ATOM,
                        32, static_cast<uint32_t>(atoms.size()), atoms.constData());
    xcb_flush(connection.get());
}

void StationDisplay::setWmStateAfterMapping(unsigned int atom)
{
    if (!connection || !screen) {
        return;
    }
    // Once mapped, the window manager owns _NET_WM_STATE: ask it to add the state.
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = window;
    message.type = wmStateAtom;
    message.data.data32[0] = netWmStateAdd;
    message.data.data32[1] = atom;
    xcb_send_event(connection.get(), 0, screen->root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                   reinterpret_cast<const char*>(&message));
    xcb_flush(connection.get());
}

bool StationDisplay::createXImage()
{
    // A server without a screen keeps its connection but gets no picture.
    if (!connection || !screen) {
        return false;
    }
    QImage& image = composer.getImage();
    if (image.isNull()) {
        SELVANE_LOG(LEVEL_BUG, "image is NULL");
        return false;
    }
    xcb_connection_t* c = connection.get();
    if (pixmap) {
        xcb_free_pixmap(c, pixmap);
        pixmap = 0;
    }
    const xcb_visualtype_t* visual = findRootVisual(screen);
    if (!visual) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot get visual");
        return false;
    }
    // A 16-bit screen takes RGB 5-6-5 in 16-bit pixels, anything else 8 bits a
    // colour in 32-bit pixels. Some servers (Xvfb) announce 8 bits per RGB
    // value on their 16-bit visual, so the screen's depth decides too.
    const bool sixteenBits = visual->bits_per_rgb_value == 5 || visual->bits_per_rgb_value == 6 ||
                             screen->root_depth == 16;
    const uint8_t depth = sixteenBits ? 16 : 24;
    const uint8_t bitsPerPixel = sixteenBits ? 16 : 32;
    const xcb_setup_t* setup = xcb_get_setup(c);
    const xcb_format_t* format = findFormat(setup, depth, bitsPerPixel);
    if (!format) {
        SELVANE_LOG(LEVEL_WARNING, "Could not find format");
        return false;
    }
    // The picture is converted to the server's pixel layout where it stands:
    // from the painted 32-bit picture that needs no second buffer, which on a
    // 3840x2160 screen would be 33 MB to fill and free again on every redraw.
    image.convertTo(sixteenBits ? QImage::Format_RGB16 : QImage::Format_RGB32);
    const uint32_t stride =
        ((image.width() * bitsPerPixel + format->scanline_pad - 1) / format->scanline_pad) *
        format->scanline_pad / 8;
    const QByteArray rows = paddedRows(image, stride);
    // One PutImage request carries at most the server's maximum request
    // length (in 4-byte units): a big picture goes up in bands of rows.
    const uint32_t maximumBytes = xcb_get_maximum_request_length(c) * 4;
    const uint32_t bandRows =
        maximumBytes > putImageHeaderBytes ? (maximumBytes - putImageHeaderBytes) / stride : 0;
    if (bandRows < 1) {
        SELVANE_LOG(LEVEL_WARNING, "Could not create image");
        return false;
    }

    const auto imageWidth = static_cast<uint16_t>(image.width());
    const auto imageHeight = static_cast<uint16_t>(image.height());
    pixmap = xcb_generate_id(c);
    xcb_create_pixmap(c, depth, pixmap, window, imageWidth, imageHeight);
    if (gc) {
        xcb_free_gc(c, gc);
    }
    gc = xcb_generate_id(c);
    const std::array<uint32_t, 2> gcValues = {screen->black_pixel, 0xffffff};
    xcb_create_gc(c, gc, pixmap, XCB_GC_FOREGROUND | XCB_GC_BACKGROUND, gcValues.data());
    const auto* data = reinterpret_cast<const uint8_t*>(rows.constData());
    for (uint32_t top = 0; top < imageHeight; top += bandRows) {
        const uint32_t bandHeight = qMin<uint32_t>(bandRows, imageHeight - top);
        xcb_put_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, gc, imageWidth,
                      static_cast<uint16_t>(bandHeight), 0, static_cast<int16_t>(top), 0, depth,
                      bandHeight * stride, data + static_cast<size_t>(top) * stride);
    }
    xcb_flush(c);
    return true;
}

void StationDisplay::redrawWindow()
{
    if (!connection) {
        return;
    }
    // Only for the expose event it causes: update() answers it with the picture.
    xcb_clear_area(connection.get(), 1, window, 0, 0, 1, 1);
    xcb_flush(connection.get());
}

void StationDisplay::closeDisplay()
{
    if (!connection) {
        return;
    }
    xcb_connection_t* c = connection.get();
    if (pixmap) {
        xcb_free_pixmap(c, pixmap);
        pixmap = 0;
    }
    if (gc) {
        xcb_free_gc(c, gc);
        gc = 0;
    }
    if (window) {
        xcb_destroy_window(c, window);
        window = 0;
    }
    xcb_flush(c);
    releaseConnection();
}

void StationDisplay::dropDisplay()
{
    pixmap = 0;
    gc = 0;
    window = 0;
    releaseConnection();
}

void StationDisplay::releaseConnection()
{
    if (listener) {
        listener->socketClosing();
    }
    connection.reset();
    screen = nullptr;
    keymap.forget();
    keymapChanged = false;
}
