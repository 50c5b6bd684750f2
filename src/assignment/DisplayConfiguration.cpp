#include "assignment/DisplayConfiguration.h"

#include "common/Logger.h"
#include "common/PendingCallGroup.h"
#include "common/RemoteObjectProxy.h"
#include "common/Util.h"
#include "input/EventDevice.h"
#include "overlay/DisplaySocket.h"
#include "overlay/StationThread.h"
#include "translation/TranslationLanguage.h"

#include "Paths.h"

#include <QFontDatabase>

#include <unistd.h>

namespace {
constexpr char logSource[] = "DisplayConfiguration";

// A socket that nobody listens on is tried again at the next periodic update;
// a server that took the connection but could not be set up (or a thread that
// could not be started) after this long.
constexpr auto socketRetryDelay = std::chrono::milliseconds(100);
constexpr auto setupRetryDelay = std::chrono::milliseconds(StationThread::connectTimeoutMs);

QString imagePath(const QString& fileName)
{
    return QString::fromLatin1(Orvanta::Paths::imageDir) + "/" + fileName;
}

QString badgeFileOf(DisplayConfiguration::OverlayImage overlayImage)
{
    switch (overlayImage) {
    case DisplayConfiguration::OVERLAY_IMAGE_ALPHA:
        return QStringLiteral("ALPHA.png");
    case DisplayConfiguration::OVERLAY_IMAGE_BETA:
        return QStringLiteral("BETA.png");
    case DisplayConfiguration::OVERLAY_IMAGE_NONE:
        break;
    }
    return QString();
}

// The picture each state shows; none before the first step.
bool stepOf(DisplayConfiguration::State state, OverlayContent::Step& step)
{
    switch (state) {
    case DisplayConfiguration::STATE_CONFIGURING_KEYBOARD:
    case DisplayConfiguration::STATE_KEYBOARD_CONFIGURED:
        step = OverlayContent::STEP_KEYBOARD;
        return true;
    case DisplayConfiguration::STATE_MOUSE_BUSY:
        step = OverlayContent::STEP_MOUSE_BUSY;
        return true;
    case DisplayConfiguration::STATE_CONFIGURING_MOUSE:
    case DisplayConfiguration::STATE_MOUSE_CONFIGURED:
        step = OverlayContent::STEP_MOUSE;
        return true;
    case DisplayConfiguration::STATE_START:
        break;
    }
    return false;
}
} // namespace

DisplayConfiguration::DisplayConfiguration(PlatformServices& platformServices, OverlayImage overlay,
                                           int display, int stationNumber)
    : QObject(nullptr), overlayImage(overlay), platform(platformServices), displayId(display),
      stationId(stationNumber), connectionAttempts(display)
{
    SELVANE_LOG(LEVEL_INFO,
                "Creating display configuration on display :" + QString::number(displayId) +
                    " on station " + QString::number(stationId) + ".");
    localeCall = new Orvanta::PendingCallGroup(Orvanta::RemoteObjectProxy::callTimeoutMs, this);
    const int locale = platform.askLocale(*localeCall, displayId);
    connect(localeCall, &Orvanta::PendingCallGroup::done, this,
            [this, locale] { localeAnswered(localeCall->stringAnswer(locale)); });
    localeCall->start();
}

DisplayConfiguration::~DisplayConfiguration()
{
    station.reset();
    SELVANE_LOG(LEVEL_INFO,
                "Removing display configuration on display :" + QString::number(displayId) +
                    " on station " + QString::number(stationId) + ".");
}

void DisplayConfiguration::localeAnswered(const QString& locale)
{
    // Called from the call's own signal: it goes once that has returned.
    localeCall->deleteLater();
    localeCall = nullptr;
    determineLanguage(locale);
    languageDetermined = true;
    // The station's lines (connecting, pictures) follow the language's.
    if (openRequested) {
        tryToConnect();
    }
}

void DisplayConfiguration::tryToConnect()
{
    const ConnectionAttempts::Clock::time_point now = ConnectionAttempts::Clock::now();
    if (!connectionAttempts.isDue(now)) {
        return;
    }
    Orvanta::OwnedFd socket(DisplaySocket::connect(displayId));
    if (!socket.isValid()) {
        connectionAttempts.failed(now, socketRetryDelay);
        return;
    }
    // The thread sets the connection up on this socket, with the deadline for the setup.
    auto started = std::make_unique<StationThread>(displayId, std::move(socket));
    if (!started->isRunning()) {
        connectionAttempts.failed(now, setupRetryDelay);
        return;
    }
    station = std::move(started);
    connect(station.get(), &StationThread::reportsWaiting, this,
            &DisplayConfiguration::takeStationReports);
    station->requestUpdate();
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

bool DisplayConfiguration::assignmentKeyPressed(const EventDevice* device)
{
    if (!device) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
        return false;
    }
    if (state != STATE_CONFIGURING_KEYBOARD && state != STATE_CONFIGURING_MOUSE) {
        SELVANE_LOG(LEVEL_BUG, "State is invalid for handling assignment key.  State: " +
                                   stateToString(state));
        return false;
    }
    const bool keyboard = state == STATE_CONFIGURING_KEYBOARD;
    // The platform's answer is never needed: the state moves on regardless.
    platform.reportClaim(device->getDeviceFileName(), displayId,
                         keyboard ? PlatformServices::DeviceKind::KEYBOARD
                                  : PlatformServices::DeviceKind::MOUSE);
    // Changed before the signal, so that its receivers see the new state.
    state = keyboard ? STATE_KEYBOARD_CONFIGURED : STATE_MOUSE_CONFIGURED;
    if (keyboard) {
        Q_EMIT keyboardAssigned(this, device);
    } else {
        Q_EMIT mouseAssigned(this, device);
    }
    return true;
}

void DisplayConfiguration::configureKeyboard()
{
    if (state == STATE_CONFIGURING_MOUSE) {
        Q_EMIT mouseStepAbandoned();
    }
    if (stationId < 0) {
        SELVANE_LOG(LEVEL_BUG, "stationId is invalid: %d", stationId);
        assignmentKey.clear();
    }
    // Stations 0-11 get F1-F12, 12-37 the letters, 38-47 the digits. A negative
    // station still goes through the first branch ("KEY_F0" for -1). Counted in
    // 64 bits, so that the largest station number does not overflow.
    const qint64 keyNumber = qint64(stationId) + 1;
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
    requestPicture();
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
    requestPicture();
}

void DisplayConfiguration::openDisplay()
{
    openRequested = true;
    if (station) {
        station->requestUpdate();
    } else if (languageDetermined) {
        tryToConnect();
    }
}

void DisplayConfiguration::update()
{
    openRequested = true;
    if (stationFailed) {
        stationFailed = false;
        station.reset();
    }
    if (!station) {
        if (languageDetermined) {
            tryToConnect();
        }
        return;
    }
    station->enforceConnectDeadline();
    station->requestUpdate();
    // A count change waits for the picture under way; then one more follows.
    // Changes between two updates are only marked, so that counts recompose
    // a picture at most once per update however often they change.
    if (needsNewImage) {
        if (!valueCalls && composingGeneration == 0) {
            requestPicture();
        } else {
            redrawAfterPicture = true;
        }
    }
}

void DisplayConfiguration::takeStationReports()
{
    if (!station) {
        return;
    }
    const bool wasShown = isPictureShown();
    for (const StationThread::Report& report : station->takeReports()) {
        switch (report.kind) {
        case StationThread::Report::CONNECTED:
            connectionAttempts.connected();
            displayConnected = true;
            requestPicture();
            break;
        case StationThread::Report::CONNECT_FAILED:
            // Once an attempt: the thread tries no more once it is stopped.
            if (!stationFailed) {
                stationFailed = true;
                connectionAttempts.failed(ConnectionAttempts::Clock::now(), setupRetryDelay);
            }
            break;
        case StationThread::Report::LOST:
            displayConnected = false;
            pictureShown = false;
            dropValueCalls();
            composingGeneration = 0;
            break;
        case StationThread::Report::SCREEN_SIZE_CHANGED:
            requestPicture();
            break;
        case StationThread::Report::PICTURE_DONE:
            // Whatever its generation, this is what the screen shows now.
            pictureShown = report.shown;
            if (report.generation == composingGeneration) {
                composingGeneration = 0;
                if (redrawAfterPicture && needsNewImage && !valueCalls) {
                    requestPicture();
                }
            }
            break;
        }
    }
    if (isPictureShown() != wasShown) {
        Q_EMIT pictureShownChanged();
    }
}

void DisplayConfiguration::requestPicture()
{
    needsNewImage = false;
    redrawAfterPicture = false;
    OverlayContent::Step step = OverlayContent::STEP_KEYBOARD;
    // No values are asked for a display that is not connected: the picture
    // is asked for anew when it is.
    if (!station || !displayConnected || !stepOf(state, step)) {
        return;
    }
    ++wantedGeneration;
    station->setWantedGeneration(wantedGeneration);

    requestedContent = OverlayContent();
    requestedContent.generation = wantedGeneration;
    requestedContent.step = step;
    requestedContent.stationId = stationId;
    requestedContent.language = language;
    requestedContent.assignmentKey = assignmentKey;
    requestedContent.badgeFile = badgeFileOf(overlayImage);

    dropValueCalls();
    valueCalls = new Orvanta::PendingCallGroup(Orvanta::RemoteObjectProxy::callTimeoutMs, this);
    // The keyboard step asks whether or not there is a language to draw the
    // values with; the mouse step only when there is.
    if (step == OverlayContent::STEP_KEYBOARD || (step == OverlayContent::STEP_MOUSE && language)) {
        const PlatformServices::DeviceKind kind = step == OverlayContent::STEP_KEYBOARD
                                                      ? PlatformServices::DeviceKind::KEYBOARD
                                                      : PlatformServices::DeviceKind::MOUSE;
        const int assigned = platform.askAssignedCount(*valueCalls, kind);
        const int available = platform.askUnassignedCount(*valueCalls, kind);
        const int name = platform.askStationTag(*valueCalls, QStringLiteral("name"));
        const int location = platform.askStationTag(*valueCalls, QStringLiteral("location"));
        connect(valueCalls, &Orvanta::PendingCallGroup::done, this,
                [this, assigned, available, name, location] {
                    requestedContent.assigned = valueCalls->intAnswer(assigned);
                    requestedContent.available = valueCalls->intAnswer(available);
                    requestedContent.stationName = valueCalls->stringAnswer(name);
                    requestedContent.stationLocation = valueCalls->stringAnswer(location);
                    valuesArrived();
                });
    }
    if (valueCalls->start()) {
        valuesArrived();
    }
}

void DisplayConfiguration::valuesArrived()
{
    dropValueCalls();
    composingGeneration = requestedContent.generation;
    station->show(requestedContent);
}

void DisplayConfiguration::dropValueCalls()
{
    if (!valueCalls) {
        return;
    }
    // Possibly called from the calls' own signal: they go once it has returned.
    valueCalls->disconnect(this);
    valueCalls->deleteLater();
    valueCalls = nullptr;
}

void DisplayConfiguration::determineLanguage(QString locale)
{
    // pt_BR_x tries pt_BR_x, pt_BR, pt; de_DE.UTF-8 tries itself, then de.
    QString candidate = locale;
    language = platform.findLanguage(candidate);
    while (!language) {
        const int underscore = candidate.lastIndexOf('_');
        if (underscore < 0) {
            break;
        }
        candidate = candidate.left(underscore);
        language = platform.findLanguage(candidate);
    }
    if (!language) {
        SELVANE_LOG(LEVEL_WARNING, "Cannot find strings for language '" +
                                       Orvanta::escapeForLog(locale) +
                                       "'.  Using language 'en' as a default");
        language = platform.findLanguage(QStringLiteral("en"));
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
