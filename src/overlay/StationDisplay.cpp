#include "overlay/StationDisplay.h"

#include "common/Logger.h"
#include "common/Util.h"
#include "overlay/DisplaySocket.h"

#include <QByteArray>
#include <QDeadlineTimer>

#include <X11/Xauth.h>
#include <xcb/randr.h>
#include <xcb/xcbext.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
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

// The rows of `upload`, one after the other, each padded to the server's
// scanline pad. Qt pads its rows to 32 bits, which is what the servers in use
// ask for; only another pad needs a copy.
// The caller made sure that `bytes`, stride times the height, fits a QByteArray.
QByteArray paddedRows(const QImage& upload, size_t stride, size_t bytes)
{
    if (static_cast<size_t>(upload.bytesPerLine()) == stride) {
        return QByteArray::fromRawData(reinterpret_cast<const char*>(upload.constBits()),
                                       static_cast<int>(bytes));
    }
    QByteArray rows(static_cast<int>(bytes), '\0');
    const size_t used = qMin(static_cast<size_t>(upload.bytesPerLine()), stride);
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

// Warns when the server on the other end of `fd` runs under an account that is
// neither root nor this daemon's own: someone else may have taken the display's
// socket first. The server is used all the same.
void warnAboutForeignServer(int fd, int displayId)
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return;
    }
    if (peer.uid == 0 || peer.uid == geteuid()) {
        return;
    }
    SELVANE_LOG(LEVEL_WARNING,
                "Display :%d is served by uid %u (pid %d), neither root nor this daemon's account",
                displayId, static_cast<unsigned>(peer.uid), static_cast<int>(peer.pid));
}

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
    if (!connection || !window || verdict != ServerSetupCheck::Verdict::USABLE) {
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
    SELVANE_LOG(LEVEL_INFO, QStringLiteral("Station %1 shows key %2 for %3 (layout %4)")
                                .arg(content.stationId)
                                .arg(Orvanta::escapeForLog(content.keyLabel), content.assignmentKey,
                                     Orvanta::escapeForLog(keymap.getLayoutName())));
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
    const int fd =
        connectedSocket.isValid() ? connectedSocket.release() : DisplaySocket::connect(displayId);
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
    warnAboutForeignServer(xcb_get_file_descriptor(connection.get()), displayId);
    // A refused server keeps its connection: it is not asked again until it
    // goes, and a screen too large may still shrink.
    if (!acceptSetup()) {
        return false;
    }
    createWindow();
    return true;
}

bool StationDisplay::acceptSetup()
{
    const xcb_setup_t* setup = xcb_get_setup(connection.get());
    const auto* bytes = reinterpret_cast<const uint8_t*>(setup);
    setupCheck.emplace(bytes, 8 + 4 * static_cast<size_t>(setup->length));
    verdict = setupCheck->getVerdict();
    if (verdict == ServerSetupCheck::Verdict::MALFORMED ||
        verdict == ServerSetupCheck::Verdict::NO_SCREEN) {
        logRefusal();
        return false;
    }
    // The check found the first screen's whole record within the reply.
    screen = reinterpret_cast<const xcb_screen_t*>(bytes + setupCheck->getScreenOffset());
    width = setupCheck->getWidth();
    height = setupCheck->getHeight();
    // Listened to also while the screen is refused: a change of its size may
    // make it usable.
    selectScreenChanges();
    if (verdict != ServerSetupCheck::Verdict::USABLE) {
        logRefusal();
        return false;
    }
    return true;
}

void StationDisplay::logRefusal() const
{
    switch (verdict) {
    case ServerSetupCheck::Verdict::USABLE:
        return;
    case ServerSetupCheck::Verdict::MALFORMED:
        SELVANE_LOG(LEVEL_WARNING, "Refusing display :%d: its X setup is malformed", displayId);
        return;
    case ServerSetupCheck::Verdict::NO_SCREEN:
        SELVANE_LOG(LEVEL_WARNING, "Could not find a screen to use on display :%d", displayId);
        return;
    case ServerSetupCheck::Verdict::SCREEN_TOO_LARGE:
        SELVANE_LOG(LEVEL_WARNING, "Refusing display :%d: its screen of %ux%u is larger than %ux%u",
                    displayId, width, height, ServerSetupCheck::maximumScreenSide,
                    ServerSetupCheck::maximumScreenSide);
        return;
    case ServerSetupCheck::Verdict::NO_PIXMAP_FORMAT:
        SELVANE_LOG(LEVEL_WARNING, "Refusing display :%d: no usable pixmap format", displayId);
        return;
    }
}

void StationDisplay::selectScreenChanges()
{
    // A request of an extension the server lacks would end the connection.
    xcb_connection_t* c = connection.get();
    const xcb_query_extension_reply_t* randr = xcb_get_extension_data(c, &xcb_randr_id);
    if (randr && randr->present) {
        randrEventBase = randr->first_event;
        xcb_randr_select_input(c, screen->root, XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE);
        xcb_flush(c);
    }
}

void StationDisplay::hideWindow()
{
    xcb_connection_t* c = connection.get();
    if (pixmap) {
        xcb_free_pixmap(c, pixmap);
        pixmap = 0;
    }
    if (window) {
        xcb_unmap_window(c, window);
    }
    xcb_flush(c);
}

void StationDisplay::createWindow()
{
    xcb_connection_t* c = connection.get();
    window = xcb_generate_id(c);
    const std::array<uint32_t, 2> windowValues = {
        screen->white_pixel, XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_VISIBILITY_CHANGE |
                                 XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(c, screen->root_depth, window, screen->root, 0, 0,
                      static_cast<uint16_t>(width), static_cast<uint16_t>(height), 1,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, windowValues.data());

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
    const ServerSetupCheck::Verdict previous =
        std::exchange(verdict, setupCheck->verdictAt(width, height));
    if (verdict != ServerSetupCheck::Verdict::USABLE) {
        // Once for each reason in a row, however many changes keep it.
        if (verdict != previous) {
            logRefusal();
        }
        hideWindow();
        return;
    }
    const bool wasRefused = previous != ServerSetupCheck::Verdict::USABLE;
    // Refused since the setup: the display is used for the first time.
    if (!window) {
        createWindow();
        if (listener) {
            listener->connected(width, height);
        }
        return;
    }
    const std::array<uint32_t, 2> size = {width, height};
    xcb_configure_window(connection.get(), window,
                         XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, size.data());
    if (wasRefused) {
        xcb_map_window(connection.get(), window);
    }
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
    // The setup's check chose the format; it has none when the screen's root
    // visual is not among its visuals.
    const std::optional<ServerSetupCheck::PixmapFormat>& uploadFormat = setupCheck->getFormat();
    if (!uploadFormat) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot get visual");
        return false;
    }
    const bool sixteenBits = uploadFormat->depth == 16;
    const uint8_t depth = uploadFormat->depth;
    // The picture is converted to the server's pixel layout where it stands:
    // from the painted 32-bit picture that needs no second buffer, which on a
    // 3840x2160 screen would be 33 MB to fill and free again on every redraw.
    image.convertTo(sixteenBits ? QImage::Format_RGB16 : QImage::Format_RGB32);
    const auto imageWidth = static_cast<uint32_t>(image.width());
    const auto imageHeight = static_cast<uint32_t>(image.height());
    const std::optional<size_t> stride = uploadFormat->rowBytes(imageWidth);
    const std::optional<size_t> bytes = uploadFormat->imageBytes(imageWidth, imageHeight);
    // One PutImage request carries at most the server's maximum request
    // length (in 4-byte units): a big picture goes up in bands of rows.
    const size_t maximumBytes = static_cast<size_t>(xcb_get_maximum_request_length(c)) * 4;
    const size_t bandRows = stride && *stride > 0 && maximumBytes > putImageHeaderBytes
                                ? (maximumBytes - putImageHeaderBytes) / *stride
                                : 0;
    if (!bytes || *bytes > static_cast<size_t>(std::numeric_limits<int>::max()) || bandRows < 1) {
        SELVANE_LOG(LEVEL_WARNING, "Could not create image");
        return false;
    }
    const QByteArray rows = paddedRows(image, *stride, *bytes);

    pixmap = xcb_generate_id(c);
    xcb_create_pixmap(c, depth, pixmap, window, static_cast<uint16_t>(imageWidth),
                      static_cast<uint16_t>(imageHeight));
    if (gc) {
        xcb_free_gc(c, gc);
    }
    gc = xcb_generate_id(c);
    const std::array<uint32_t, 2> gcValues = {screen->black_pixel, 0xffffff};
    xcb_create_gc(c, gc, pixmap, XCB_GC_FOREGROUND | XCB_GC_BACKGROUND, gcValues.data());
    const auto* data = reinterpret_cast<const uint8_t*>(rows.constData());
    for (size_t top = 0; top < imageHeight; top += bandRows) {
        const size_t bandHeight = qMin(bandRows, imageHeight - top);
        xcb_put_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, gc, static_cast<uint16_t>(imageWidth),
                      static_cast<uint16_t>(bandHeight), 0, static_cast<int16_t>(top), 0, depth,
                      static_cast<uint32_t>(bandHeight * *stride), data + top * *stride);
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
    setupCheck.reset();
    verdict = ServerSetupCheck::Verdict::USABLE;
    randrEventBase = 0;
    keymap.forget();
    keymapChanged = false;
}
