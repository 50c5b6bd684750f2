#include "assignment/DisplayConfiguration.h"

#include "common/Logger.h"
#include "daemon/DBusInterface.h"
#include "daemon/Selvane.h"
#include "input/EventDevice.h"
#include "translation/TranslationLanguage.h"

#include "Paths.h"

#include <QDBusReply>
#include <QDeadlineTimer>
#include <QFontDatabase>
#include <QPainter>

#include <xcb/randr.h>
#include <xcb/xcbext.h>

#include <array>
#include <cstring>
#include <poll.h>

namespace {
constexpr char logSource[] = "DisplayConfiguration";

constexpr char windowName[] = "Press F Key";
constexpr char motifWmHintsName[] = "_MOTIF_WM_HINTS";
// _MOTIF_WM_HINTS: flags (2: the decorations field is valid), functions,
// decorations (none), input mode, status.
constexpr std::array<uint32_t, 5> motifNoDecorations = {2, 0, 0, 0, 0};
constexpr uint32_t netWmStateAdd = 1;

// 72 dots per inch: one point of a font is one pixel of the unscaled picture.
constexpr double dotsPerMeterAt72Dpi = 2835.0;

// Baselines of the three key caps of the keyboard background, in its own pixel space.
constexpr int previousKeyX = 518;
constexpr int assignmentKeyX = 595;
constexpr int nextKeyX = 672;
constexpr int keyLabelY = 390;

// The longest the daemon's one thread waits for the server's atom replies
// when it opens a display, the same bound as for a platform service.
constexpr int atomReplyTimeoutMs = 2000;

// A PutImage request has a 24-byte header, 28 with the BIG-REQUESTS length.
constexpr uint32_t putImageHeaderBytes = 28;

QString imagePath(const QString& fileName)
{
    return QString::fromLatin1(Orvanta::Paths::imageDir) + "/" + fileName;
}

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

} // namespace

DisplayConfiguration::DisplayConfiguration(DBusInterface& dbusInterface, const Selvane& central,
                                           OverlayImage overlay, int display, int station)
    : QObject(nullptr), overlayImage(overlay), dbus(dbusInterface), displayId(display),
      stationId(station)
{
    SELVANE_LOG(LEVEL_INFO,
                "Creating display configuration on display :" + QString::number(displayId) +
                    " on station " + QString::number(stationId) + ".");
    const QDBusReply<QString> reply = dbus.getSessionControllerInterface()->call(
        QStringLiteral("GetLocaleForUserOnDisplay"), displayId);
    determineLanguage(central, reply.isValid() ? reply.value() : QString());
}

DisplayConfiguration::~DisplayConfiguration()
{
    closeDisplay();
    SELVANE_LOG(LEVEL_INFO,
                "Removing display configuration on display :" + QString::number(displayId) +
                    " on station " + QString::number(stationId) + ".");
}

QString DisplayConfiguration::stateToString(State state)
{
    switch (state) {
    case STATE_START:
        return QStringLiteral("start");
    case STATE_CONFIGURING_KEYBOARD:
        return QStringLiteral("configuring_keyboard");
    case STATE_KEYBOARD_CONFIGURED:
        return QStringLiteral("keyboard_configured");
    case STATE_MOUSE_BUSY:
        return QStringLiteral("mouse_busy");
    case STATE_CONFIGURING_MOUSE:
        return QStringLiteral("configuring_mouse");
    case STATE_MOUSE_CONFIGURED:
        return QStringLiteral("mouse_configured");
    }
    SELVANE_LOG(LEVEL_WARNING, "state is invalid: %d", static_cast<int>(state));
    return QStringLiteral("start");
}

void DisplayConfiguration::assignmentKeyPressed(const EventDevice* device)
{
    if (!device) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
        return;
    }
    if (state != STATE_CONFIGURING_KEYBOARD && state != STATE_CONFIGURING_MOUSE) {
        SELVANE_LOG(LEVEL_BUG, "State is invalid for handling assignment key.  State: " +
                                   stateToString(state));
        return;
    }
    const bool keyboard = state == STATE_CONFIGURING_KEYBOARD;
    // The platform's answer is never needed: the state moves on regardless.
    dbus.getAssignmentInterface()->call(
        QDBus::NoBlock, QStringLiteral("DeviceAssignedAuto"), device->getDeviceFileName(),
        displayId, keyboard ? QStringLiteral("KeyboardDevice") : QStringLiteral("MouseDevice"));
    // Changed before the signal, so that its receivers see the new state.
    state = keyboard ? STATE_KEYBOARD_CONFIGURED : STATE_MOUSE_CONFIGURED;
    if (keyboard) {
        Q_EMIT keyboardAssigned(this, device);
    } else {
        Q_EMIT mouseAssigned(this, device);
    }
}

void DisplayConfiguration::configureKeyboard()
{
    if (state == STATE_CONFIGURING_MOUSE) {
        // Not an assignment: tells the handler that the mouse step was abandoned.
        Q_EMIT mouseAssigned(nullptr, nullptr);
    }
    if (stationId < 0) {
        SELVANE_LOG(LEVEL_BUG, "stationId is invalid: %d", stationId);
        assignmentKey.clear();
    }
    // Stations 0-11 get F1-F12, 12-37 the letters, 38-47 the digits. A negative
    // station still goes through the first branch ("KEY_F0" for -1).
    const int keyNumber = stationId + 1;
    if (keyNumber <= 12) {
        assignmentKey = QStringLiteral("KEY_F%1").arg(keyNumber);
    } else if (keyNumber <= 38) {
        assignmentKey = QStringLiteral("KEY_%1").arg(QChar('A' + stationId - 12));
    } else if (keyNumber <= 48) {
        assignmentKey = QStringLiteral("KEY_%1").arg(QChar('0' + stationId - 38));
    } else {
        SELVANE_LOG(LEVEL_BUG, "There are no possible keys to use for assignment for station %d",
                    stationId);
        assignmentKey.clear();
    }
    state = STATE_CONFIGURING_KEYBOARD;
    setupKeyboardImage();
}

void DisplayConfiguration::configureMouse(bool busy)
{
    if (state != STATE_KEYBOARD_CONFIGURED && state != STATE_MOUSE_BUSY) {
        SELVANE_LOG(LEVEL_BUG, "State is " + stateToString(state) +
                                   ", but it's expected to be state " +
                                   stateToString(STATE_KEYBOARD_CONFIGURED) + " or " +
                                   stateToString(STATE_MOUSE_BUSY));
    }
    if (busy) {
        state = STATE_MOUSE_BUSY;
    } else {
        assignmentKey = QStringLiteral("BTN_LEFT");
        state = STATE_CONFIGURING_MOUSE;
    }
    setupMouseImage(busy);
}

void DisplayConfiguration::update()
{
    if (!connection) {
        if (!openDisplay()) {
            return;
        }
        needsNewImage = true;
    }
    if (xcb_connection_has_error(connection.get())) {
        SELVANE_LOG(LEVEL_INFO, "Lost connection to display %d", displayId);
        dropDisplay();
        return;
    }
    raiseWindow();
    while (XcbPointer<xcb_generic_event_t> event{xcb_poll_for_event(connection.get())}) {
        handleEvent(*event);
    }
    if (needsNewImage) {
        switch (state) {
        case STATE_CONFIGURING_KEYBOARD:
        case STATE_KEYBOARD_CONFIGURED:
            setupKeyboardImage();
            break;
        case STATE_MOUSE_BUSY:
            setupMouseImage(true);
            break;
        case STATE_CONFIGURING_MOUSE:
        case STATE_MOUSE_CONFIGURED:
            setupMouseImage(false);
            break;
        case STATE_START:
            break;
        }
        needsNewImage = false;
    }
}

void DisplayConfiguration::handleEvent(const xcb_generic_event_t& event)
{
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
                          static_cast<uint16_t>(image.width()),
                          static_cast<uint16_t>(image.height()));
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
    needsNewImage = true;
}

void DisplayConfiguration::requestWmStates()
{
    raiseWindow();
    setWmStateAfterMapping(wmStateAboveAtom);
    setWmStateAfterMapping(wmStateStaysOnTopAtom);
}

bool DisplayConfiguration::openDisplay()
{
    if (connection) {
        return true;
    }
    const QByteArray displayName = QStringLiteral(":%1").arg(displayId).toLatin1();
    XcbConnection opened(xcb_connect(displayName.constData(), nullptr));
    if (!opened || xcb_connection_has_error(opened.get())) {
        SELVANE_LOG(LEVEL_WARNING, "Could not get connection to display :%d", displayId);
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
    return true;
}

xcb_atom_t DisplayConfiguration::getAtom(const char* name, xcb_intern_atom_cookie_t cookie,
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

void DisplayConfiguration::hideBorder(xcb_intern_atom_cookie_t motifWmHintsCookie,
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

void DisplayConfiguration::hideCursor()
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

void DisplayConfiguration::raiseWindow()
{
    if (!connection || !window) {
        return;
    }
    const uint32_t above = XCB_STACK_MODE_ABOVE;
    xcb_configure_window(connection.get(), window, XCB_CONFIG_WINDOW_STACK_MODE, &above);
    xcb_flush(connection.get());
}

void DisplayConfiguration::setWmStateBeforeMapping(QVector<unsigned int> atoms)
{
    if (atoms.isEmpty() || !connection) {
        return;
    }
    // The EWMH way to set states on a window that is not mapped yet.
    xcb_change_property(connection.get(), XCB_PROP_MODE_REPLACE, window, wmStateAtom, XCB_ATOM_ATOM,
                        32, static_cast<uint32_t>(atoms.size()), atoms.constData());
    xcb_flush(connection.get());
}

void DisplayConfiguration::setWmStateAfterMapping(unsigned int atom)
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

bool DisplayConfiguration::createXImage()
{
    // A server without a screen keeps its connection but gets no picture.
    if (!connection || !screen) {
        return false;
    }
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

void DisplayConfiguration::redrawWindow()
{
    if (!connection) {
        return;
    }
    // Only for the expose event it causes: update() answers it with the picture.
    xcb_clear_area(connection.get(), 1, window, 0, 0, 1, 1);
    xcb_flush(connection.get());
}

void DisplayConfiguration::closeDisplay()
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
    connection.reset();
    screen = nullptr;
}

void DisplayConfiguration::dropDisplay()
{
    pixmap = 0;
    gc = 0;
    window = 0;
    screen = nullptr;
    connection.reset();
}

bool DisplayConfiguration::loadImage(QString fileName)
{
    // Read aside: on failure the picture on the server, whose size `image`
    // gives to every expose, stays as it is.
    const QImage background(imagePath(fileName));
    if (background.isNull()) {
        SELVANE_LOG(LEVEL_WARNING, "Could not load image '" + fileName + "'");
        return false;
    }
    // Palette and grey pictures cannot be painted on.
    image = background.convertToFormat(QImage::Format_ARGB32_Premultiplied);

    QString badgeFile;
    if (overlayImage == OVERLAY_IMAGE_ALPHA) {
        badgeFile = QStringLiteral("ALPHA.png");
    } else if (overlayImage == OVERLAY_IMAGE_BETA) {
        badgeFile = QStringLiteral("BETA.png");
    }
    if (!badgeFile.isEmpty()) {
        const QImage badge(imagePath(badgeFile));
        if (badge.isNull()) {
            SELVANE_LOG(LEVEL_WARNING,
                        "Could not open overlay file '" + imagePath(badgeFile) + "'");
        } else {
            QPainter painter(&image);
            painter.drawImage(image.rect(), badge, badge.rect());
        }
    }

    if (image.width() == static_cast<int>(width) && image.height() == static_cast<int>(height)) {
        scaleX = 1.0;
        scaleY = 1.0;
    } else {
        scaleX = static_cast<double>(width) / image.width();
        scaleY = static_cast<double>(height) / image.height();
        image = image.scaled(static_cast<int>(width), static_cast<int>(height),
                             Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    }
    // Text is drawn in points: the fonts grow with the picture.
    image.setDotsPerMeterX(static_cast<int>(dotsPerMeterAt72Dpi * scaleX));
    image.setDotsPerMeterY(static_cast<int>(dotsPerMeterAt72Dpi * scaleY));
    return true;
}

int DisplayConfiguration::countFromDatabase(const char* method)
{
    const QDBusReply<int> reply = dbus.getDatabaseInterface()->call(QLatin1String(method));
    return reply.isValid() ? reply.value() : 0;
}

QString DisplayConfiguration::stationTag(const QString& tagName)
{
    const QDBusReply<QString> reply =
        dbus.getDatabaseInterface()->call(QStringLiteral("StationGetTag"), tagName);
    return reply.isValid() ? reply.value() : QString();
}

bool DisplayConfiguration::setupKeyboardImage()
{
    if (!connection) {
        return false;
    }
    const int assignedKeyboards = countFromDatabase("DeviceGetNumberOfAssignedKeyboards");
    const int unassignedKeyboards = countFromDatabase("DeviceGetNumberOfUnassignedKeyboards");
    const QString name = stationTag(QStringLiteral("name"));
    const QString location = stationTag(QStringLiteral("location"));
    if (!loadImage(QStringLiteral("configure-keyboard.png"))) {
        return false;
    }
    QPainter painter(&image);
    if (language) {
        language->renderString(painter, scaleX, scaleY, QStringLiteral("station-num"), stationId);
        language->renderString(painter, scaleX, scaleY, QStringLiteral("station-name"), name);
        language->renderString(painter, scaleX, scaleY, QStringLiteral("station-location"),
                               location);
        language->renderString(painter, scaleX, scaleY, QStringLiteral("configure-keyboard"));
        renderLabelOnKey(painter);
        language->renderString(painter, scaleX, scaleY, QStringLiteral("configure-keyboard-key"),
                               assignmentKey.section('_', -1));
        language->renderString(painter, scaleX, scaleY, QStringLiteral("keyboards-available"),
                               unassignedKeyboards);
        language->renderString(painter, scaleX, scaleY, QStringLiteral("keyboards-assigned"),
                               assignedKeyboards);
    }
    painter.end();
    const bool created = createXImage();
    if (created) {
        redrawWindow();
    }
    return created;
}

bool DisplayConfiguration::setupMouseImage(bool busy)
{
    if (!connection) {
        return false;
    }
    if (!loadImage(busy ? QStringLiteral("please-wait-mouse.png")
                        : QStringLiteral("configure-mouse.png"))) {
        return false;
    }
    QPainter painter(&image);
    if (language && busy) {
        language->renderString(painter, scaleX, scaleY, QStringLiteral("please-wait-mouse"));
    } else if (language) {
        const int assignedMice = countFromDatabase("DeviceGetNumberOfAssignedMice");
        const int unassignedMice = countFromDatabase("DeviceGetNumberOfUnassignedMice");
        const QString name = stationTag(QStringLiteral("name"));
        const QString location = stationTag(QStringLiteral("location"));
        language->renderString(painter, scaleX, scaleY, QStringLiteral("station-num"), stationId);
        language->renderString(painter, scaleX, scaleY, QStringLiteral("station-name"), name);
        language->renderString(painter, scaleX, scaleY, QStringLiteral("station-location"),
                               location);
        language->renderString(painter, scaleX, scaleY, QStringLiteral("configure-mouse"));
        language->renderString(painter, scaleX, scaleY, QStringLiteral("mice-available"),
                               unassignedMice);
        language->renderString(painter, scaleX, scaleY, QStringLiteral("mice-assigned"),
                               assignedMice);
    }
    painter.end();
    const bool created = createXImage();
    if (created) {
        redrawWindow();
    }
    return created;
}

void DisplayConfiguration::renderLabelOnKey(QPainter& painter)
{
    if (assignmentKey.isEmpty() || !language) {
        return;
    }
    // The background shows three key caps: the assignment key in the middle
    // and its neighbours on the keyboard beside it, where there are any.
    const QString label = assignmentKey.section('_', -1);
    QString previous;
    QString next;
    if (label.size() == 1) {
        const QChar key = label.at(0);
        const QChar first = key.isLetter() ? QChar('A') : QChar('0');
        const QChar last = key.isLetter() ? QChar('Z') : QChar('9');
        if (key != first) {
            previous = QChar(key.unicode() - 1);
        }
        if (key != last) {
            next = QChar(key.unicode() + 1);
        }
    } else {
        const QString number = label.mid(1);
        if (number != QLatin1String("1")) {
            previous = QStringLiteral("F%1").arg(number.toInt() - 1);
        }
        if (number != QLatin1String("12")) {
            next = QStringLiteral("F%1").arg(number.toInt() + 1);
        }
    }
    painter.setPen(Qt::white);
    const int y = qRound(keyLabelY * scaleY);
    if (!previous.isEmpty()) {
        painter.drawText(QPoint(qRound(previousKeyX * scaleX), y), previous);
    }
    painter.drawText(QPoint(qRound(assignmentKeyX * scaleX), y), label);
    if (!next.isEmpty()) {
        painter.drawText(QPoint(qRound(nextKeyX * scaleX), y), next);
    }
}

void DisplayConfiguration::determineLanguage(const Selvane& central, QString locale)
{
    // pt_BR_x tries pt_BR_x, pt_BR, pt; de_DE.UTF-8 tries itself, then de.
    QString candidate = locale;
    language = central.getLanguage(candidate);
    while (!language) {
        const int underscore = candidate.lastIndexOf('_');
        if (underscore < 0) {
            break;
        }
        candidate = candidate.left(underscore);
        language = central.getLanguage(candidate);
    }
    if (!language) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot find strings for language '" + locale +
                                       "'.  Using language 'en' as a default");
        language = central.getLanguage(QStringLiteral("en"));
        if (!language) {
            SELVANE_LOG(LEVEL_WARNING,
                        "Cannot find strings for language 'en'.  No strings can be rendered.");
            return;
        }
    }
    SELVANE_LOG(
        LEVEL_INFO,
        QStringLiteral("Using language %1 on station %2").arg(language->getId()).arg(stationId));
}

void DisplayConfiguration::initTranslations()
{
    const QString fontFile = imagePath(QStringLiteral("DejaVuSans.ttf"));
    if (QFontDatabase::addApplicationFont(fontFile) == -1) {
        SELVANE_LOG(LEVEL_WARNING, "Could not load default font " + fontFile);
    } else {
        SELVANE_LOG(LEVEL_INFO, "Loaded default font " + fontFile);
    }
}
