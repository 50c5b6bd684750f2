#include "overlay/StationDisplay.h"

#include "common/Logger.h"
#include "common/Util.h"
#include "overlay/DisplaySocket.h"
#include "overlay/OverlayComposer.h"

#include <QByteArray>

#include <X11/Xauth.h>
#include <xcb/randr.h>

#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace {
// The overlay's log lines belong to the display configuration, whichever
// thread writes them.
constexpr char logSource[] = "DisplayConfiguration";

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

void StationDisplay::setWmStateBeforeMapping(QVector<unsigned int> atoms)
{
    if (connection && window.exists()) {
        window.setWmStateBeforeMapping(connection.get(), std::move(atoms));
    }
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
    window.raise(connection.get());
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
    if (!connection || !window.exists() || verdict != ServerSetupCheck::Verdict::USABLE) {
        return false;
    }
    OverlayContent labelled = content;
    labelled.keyLabel = keymap.labelFor(content.assignmentKey);
    std::optional<OverlayPicture> picture = OverlayComposer::compose(
        labelled, QSize(static_cast<int>(width), static_cast<int>(height)));
    if (!picture) {
        return false;
    }
    logKeyLabel(labelled);
    xcb_connection_t* c = connection.get();
    const bool sameBackground = serverPicture.holds(*picture->background);
    std::vector<QRect> changed;
    if (sameBackground) {
        changed = OverlayTextLayout::changedAreas(shownTexts, picture->texts);
    } else {
        // The setup's check chose the format; it has none when the screen's
        // root visual is not among its visuals.
        const std::optional<ServerSetupCheck::PixmapFormat>& format = setupCheck->getFormat();
        if (!format) {
            SELVANE_LOG(LEVEL_WARNING, "Cannot get visual");
            return false;
        }
        if (!serverPicture.uploadBackground(c, window.id(), *screen, *format,
                                            picture->background)) {
            return false;
        }
        changed = OverlayTextLayout::areasOf(picture->texts);
    }
    for (const QRect& area : changed) {
        const QRect onScreen = area & picture->rect();
        if (onScreen.isEmpty()) {
            continue;
        }
        serverPicture.put(c, OverlayComposer::render(*picture, onScreen), onScreen.topLeft());
        if (sameBackground) {
            serverPicture.copyToWindow(c, window.id(), onScreen);
        }
    }
    // A window not mapped yet gets the picture from its first expose.
    if (!sameBackground) {
        serverPicture.copyToWindow(c, window.id(), picture->rect());
    }
    shownContent = labelled;
    shownTexts = std::move(picture->texts);
    return true;
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
    serverPicture.release(c);
    window.unmap(c);
    xcb_flush(c);
}

void StationDisplay::createWindow()
{
    window.create(connection.get(), *screen, width, height);
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
        window.requestWmStates(connection.get(), *screen);
        return;
    case XCB_MAP_NOTIFY:
        window.requestWmStates(connection.get(), *screen);
        return;
    case XCB_EXPOSE: {
        const auto& expose = reinterpret_cast<const xcb_expose_event_t&>(event);
        serverPicture.copyToWindow(connection.get(), window.id(),
                                   QRect(expose.x, expose.y, expose.width, expose.height));
        return;
    }
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
    if (!window.exists()) {
        createWindow();
        if (listener) {
            listener->connected(width, height);
        }
        return;
    }
    window.resize(connection.get(), width, height);
    if (wasRefused) {
        window.map(connection.get());
    }
    if (listener) {
        listener->screenSizeChanged(width, height);
    }
}

void StationDisplay::closeDisplay()
{
    if (!connection) {
        return;
    }
    xcb_connection_t* c = connection.get();
    serverPicture.release(c);
    window.destroy(c);
    xcb_flush(c);
    releaseConnection();
}

void StationDisplay::dropDisplay()
{
    serverPicture.forget();
    window.forget();
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
    shownTexts.clear();
}
