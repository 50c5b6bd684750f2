// The overlay on real X servers (Xvfb): the window and its properties as the
// server reports them (the station's X side, StationDisplay, driven on the
// test's thread), the composed picture as it appears on the screen, the
// window manager requests, RandR screen changes, a server that goes away and
// comes back, 16-bit and 3840x2160 screens (the display configuration with
// its station thread).
//
// The test pictures are plain colours, so that a screenshot tells which
// picture (and which badge) is shown: the keyboard background is blue with a
// red bottom quarter, the mouse background green, the busy one yellow; the
// alpha badge is a magenta square in the top right corner, the beta badge a
// cyan one in the bottom left corner. The key labels are the only white
// pixels on the key caps' row.
#include "OverlayTestBed.h"
#include "TestFiles.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include "overlay/BackgroundLibrary.h"
#include "overlay/StationDisplay.h"
#include "translation/TranslationLanguage.h"

#include <QPainter>
#include <QtTest>

namespace {

constexpr QRgb blue = qRgb(0, 0, 255);
constexpr QRgb red = qRgb(255, 0, 0);
constexpr QRgb green = qRgb(0, 255, 0);
constexpr QRgb yellow = qRgb(255, 255, 0);
constexpr QRgb magenta = qRgb(255, 0, 255);
constexpr QRgb cyan = qRgb(0, 255, 255);
constexpr QRgb white = qRgb(255, 255, 255);
constexpr int pictureWidth = 1024;
constexpr int pictureHeight = 768;
constexpr int redFromY = 576;

const QByteArray windowName = QByteArrayLiteral("Press F Key");

// Far from the key caps, so that the labels are the only white there.
const QByteArray translations = R"(<?xml version="1.0" encoding="UTF-8"?>
<translations>
  <language id="en">
    <string id="station-num"><text font_size="20" pos_x="40" pos_y="60" value="Station %1"/></string>
    <string id="station-name"><text font_size="20" pos_x="40" pos_y="100" value="%1"/></string>
    <string id="station-location"><text font_size="20" pos_x="40" pos_y="140" value="%1"/></string>
    <string id="configure-keyboard"><text font_size="22" pos_x="40" pos_y="200" value="Press"/></string>
    <string id="configure-keyboard-key"><text font_size="20" pos_x="40" pos_y="240" value="Key %1"/></string>
    <string id="keyboards-available"><text font_size="20" pos_x="40" pos_y="480" value="Free %1"/></string>
    <string id="keyboards-assigned"><text font_size="20" pos_x="40" pos_y="520" value="Used %1"/></string>
    <string id="configure-mouse"><text font_size="20" pos_x="40" pos_y="200" value="Click"/></string>
    <string id="mice-available"><text font_size="20" pos_x="40" pos_y="480" value="Free %1"/></string>
    <string id="mice-assigned"><text font_size="20" pos_x="40" pos_y="520" value="Used %1"/></string>
    <string id="please-wait-mouse"><text font_size="20" pos_x="40" pos_y="200" value="Wait"/></string>
  </language>
</translations>
)";

QImage filled(QSize size, QRgb colour)
{
    QImage picture(size, QImage::Format_RGB32);
    picture.fill(colour);
    return picture;
}

QImage keyboardPicture()
{
    QImage picture = filled(QSize(pictureWidth, pictureHeight), blue);
    QPainter(&picture).fillRect(0, redFromY, pictureWidth, pictureHeight - redFromY, red);
    return picture;
}

QImage badge(const QRect& mark, QRgb colour)
{
    QImage picture(pictureWidth, pictureHeight, QImage::Format_ARGB32);
    picture.fill(Qt::transparent);
    QPainter(&picture).fillRect(mark, QColor(colour));
    return picture;
}

int darkPixels(const QImage& shot, const QRect& area)
{
    int count = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            const QRgb pixel = shot.pixel(x, y);
            count += qRed(pixel) < 60 && qGreen(pixel) < 60 && qBlue(pixel) < 60 ? 1 : 0;
        }
    }
    return count;
}

quint16 pixel16(const QImage& shot, int x, int y)
{
    return reinterpret_cast<const quint16*>(shot.constScanLine(y))[x];
}

} // namespace

class DisplayConfigurationX11Test : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void displayWithoutServerWarnsOncePerCall();
    void closingANeverOpenedDisplayDoesNothing();
    void windowIsDressedAndOnTop();
    void secondOpenDisplayMakesNoSecondWindow();
    void cursorIsInvisible();
    void emptyWmStateListSendsNothing();
    void windowManagerIsAskedAgainAfterMapAndObscuring();
    void keyboardPictureShowsTheLabelsOfTheKey_data();
    void keyboardPictureShowsTheLabelsOfTheKey();
    void keyboardPictureAsksTheDatabaseInOrder();
    void stationTextsAreDrawnWhereTheTranslationPutsThem();
    void mousePicturesAndTheirCalls();
    void badgeIsStretchedOverThePicture_data();
    void badgeIsStretchedOverThePicture();
    void missingBadgeIsLoggedAndLeftOut();
    void missingBackgroundKeepsThePreviousPicture();
    void backgroundsKeepTheArtworksShape();
    void screenChangeToTheSameSizeDoesNothingAndANewSizeRedraws();
    void lostServerIsLoggedOnceAndTheOverlayComesBack();
    void largerScreenShowsEverythingAtTheScaledPositions();
    void sixteenBitScreenShowsTheRightColours();
    void ultraHighDefinitionScreenShowsTheWholePicture();

private:
    std::unique_ptr<DisplayConfiguration>
    create(int stationId,
           DisplayConfiguration::OverlayImage overlay = DisplayConfiguration::OVERLAY_IMAGE_NONE,
           const XvfbServer* on = nullptr);
    // Runs update() until the screen shows `colour` at the point.
    bool updateUntilShown(DisplayConfiguration& display, const XDisplayProbe& probe, QPoint point,
                          QRgb colour);
    // Runs update() of a display configuration or a station's X side until
    // the condition holds.
    template <typename Display>
    bool updateUntil(Display& display, const std::function<bool()>& condition)
    {
        return DaemonRunner::waitUntil(
            [&] {
                display.update();
                return condition();
            },
            10000);
    }
    QStringList waitForCalls(int from, int count);

    std::unique_ptr<OverlayTestBed> bed;
    std::unique_ptr<XvfbServer> server;
    std::unique_ptr<XDisplayProbe> probe;
};

void DisplayConfigurationX11Test::initTestCase()
{
    QVERIFY(OverlayTestBed::writeDataFile("translations/selvane.xml", translations));
    QVERIFY(OverlayTestBed::writePicture("configure-keyboard.png", keyboardPicture()));
    QVERIFY(OverlayTestBed::writePicture("configure-mouse.png",
                                         filled(QSize(pictureWidth, pictureHeight), green)));
    QVERIFY(OverlayTestBed::writePicture("please-wait-mouse.png",
                                         filled(QSize(pictureWidth, pictureHeight), yellow)));
    QVERIFY(OverlayTestBed::writePicture("half.png",
                                         filled(QSize(pictureWidth / 2, pictureHeight), green)));
    QVERIFY(OverlayTestBed::writePicture("ALPHA.png", badge(QRect(924, 0, 100, 100), magenta)));
    QVERIFY(OverlayTestBed::writePicture("BETA.png", badge(QRect(0, 668, 100, 100), cyan)));

    bed = std::make_unique<OverlayTestBed>(
        QStringList{"--assigned-keyboards", "2", "--unassigned-keyboards", "5", "--assigned-mice",
                    "1", "--unassigned-mice", "3", "--tag", "name=Front Desk", "--tag",
                    "location=Room 12", "--locale", "*=en_US.UTF-8"});
    QVERIFY(bed->isReady());
    server = std::make_unique<XvfbServer>();
    QVERIFY(server->start());
    probe = std::make_unique<XDisplayProbe>(server->getDisplayName());
    QVERIFY(probe->isConnected());
}

void DisplayConfigurationX11Test::cleanupTestCase()
{
    probe.reset();
    server.reset();
    bed.reset();
}

void DisplayConfigurationX11Test::init()
{
    bed->getLog().clear();
}

void DisplayConfigurationX11Test::cleanup()
{
    // Every test removes its overlay: none is left on the shared server.
    QVERIFY(DaemonRunner::waitUntil([&] { return probe->windowsNamed(windowName).isEmpty(); }));
}

std::unique_ptr<DisplayConfiguration>
DisplayConfigurationX11Test::create(int stationId, DisplayConfiguration::OverlayImage overlay,
                                    const XvfbServer* on)
{
    auto display = bed->create((on ? on : server.get())->getDisplayNumber(), stationId, overlay);
    // Created in English (en_US falls back to en) without a warning.
    if (!display->getLanguage() || display->getLanguage()->getId() != QLatin1String("en")) {
        qWarning("the test translations were not loaded");
        return nullptr;
    }
    return display;
}

bool DisplayConfigurationX11Test::updateUntilShown(DisplayConfiguration& display,
                                                   const XDisplayProbe& on, QPoint point,
                                                   QRgb colour)
{
    return updateUntil(display, [&] {
        const QImage shot = on.screenshot(QRect(point, QSize(1, 1)));
        return !shot.isNull() && shot.pixel(0, 0) == colour;
    });
}

QStringList DisplayConfigurationX11Test::waitForCalls(int from, int count)
{
    DaemonRunner::waitUntil([&] { return bed->callsSince(from).size() >= count; });
    return bed->callsSince(from);
}

void DisplayConfigurationX11Test::displayWithoutServerWarnsOncePerCall()
{
    XvfbServer gone;
    QVERIFY(gone.start());
    gone.kill();
    StationDisplay station(gone.getDisplayNumber());
    bed->getLog().clear();
    QVERIFY(!station.openDisplay());
    QVERIFY(!station.openDisplay());
    const QString warning =
        QString("Could not get connection to display :%1").arg(gone.getDisplayNumber());
    QCOMPARE(bed->getLog().messages(), (QStringList{warning, warning}));
    QCOMPARE(bed->getLog().entries().first().level, Orvanta::Logger::LEVEL_WARNING);
    QCOMPARE(bed->getLog().entries().first().file, QString("DisplayConfiguration"));
    QCOMPARE(bed->getLog().entries().first().function, QString("openDisplay"));

    // The display configuration tries once an update too, without a thread
    // of its own, logs only the first failure, and asks for no picture's values.
    bed->getLog().clear();
    auto display = create(3, DisplayConfiguration::OVERLAY_IMAGE_NONE, &gone);
    QVERIFY(display);
    QCOMPARE(display->getState(), DisplayConfiguration::STATE_START);
    const int calls = bed->callCount();
    display->configureKeyboard();
    QVERIFY(updateUntil(*display, [&] { return bed->getLog().contains(warning); }));
    for (int update = 0; update < 5; ++update) {
        display->update();
        QTest::qWait(120);
    }
    QCOMPARE(bed->getLog().count(warning), 1);
    QVERIFY(!display->isDisplayConnected());
    QCOMPARE(bed->callsSince(calls), QStringList());
}

void DisplayConfigurationX11Test::closingANeverOpenedDisplayDoesNothing()
{
    StationDisplay station(server->getDisplayNumber());
    bed->getLog().clear();
    station.closeDisplay();
    station.closeDisplay();
    QCOMPARE(bed->getLog().messages(), QStringList());
    QVERIFY(!station.show(OverlayContent()));
}

void DisplayConfigurationX11Test::windowIsDressedAndOnTop()
{
    // Something else on the screen first: the overlay must go over it.
    const xcb_window_t other = probe->mapWindow(QRect(10, 10, 50, 50));
    StationDisplay display(server->getDisplayNumber());
    QVERIFY(display.openDisplay());
    probe->sync();
    QList<xcb_window_t> windows;
    QVERIFY(DaemonRunner::waitUntil([&] {
        windows = probe->windowsNamed(windowName);
        if (windows.size() != 1) {
            return false;
        }
        const auto attributes = probe->attributes(windows.first());
        return attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
    }));
    const xcb_window_t window = windows.first();
    QCOMPARE(probe->topLevelWindows().last(), window);
    QCOMPARE(probe->attributes(window)->override_redirect, uint8_t(1));
    QCOMPARE(probe->geometry(window), QRect(0, 0, 1024, 768));
    QCOMPARE(probe->borderWidth(window), 1);

    const XDisplayProbe::Property name = probe->property(window, XCB_ATOM_WM_NAME);
    QCOMPARE(name.type, xcb_atom_t(XCB_ATOM_STRING));
    QCOMPARE(name.format, 8);
    QCOMPARE(name.value, QByteArray("Press F Key"));
    QCOMPARE(name.value.size(), 11);

    const xcb_atom_t motif = probe->atom("_MOTIF_WM_HINTS");
    const XDisplayProbe::Property hints = probe->property(window, motif);
    QCOMPARE(hints.type, motif);
    QCOMPARE(hints.format, 32);
    QCOMPARE(XDisplayProbe::values32(hints), (QList<uint32_t>{2, 0, 0, 0, 0}));

    const XDisplayProbe::Property states = probe->property(window, probe->atom("_NET_WM_STATE"));
    QCOMPARE(states.type, xcb_atom_t(XCB_ATOM_ATOM));
    QCOMPARE(states.format, 32);
    QCOMPARE(XDisplayProbe::values32(states),
             (QList<uint32_t>{probe->atom("_NET_WM_STATE_ABOVE"),
                              probe->atom("_NET_WM_STATE_STAYS_ON_TOP")}));

    // Before any picture, the window shows its white background.
    const QImage shot = probe->screenshot(QRect(0, 0, 1024, 768));
    QCOMPARE(shot.pixel(30, 30), white);
    QCOMPARE(shot.pixel(1023, 767), white);

    // Raised again on every update, over anything mapped meanwhile.
    const xcb_window_t later = probe->mapWindow(QRect(20, 20, 50, 50));
    QCOMPARE(probe->topLevelWindows().last(), later);
    QVERIFY(updateUntil(display, [&] { return probe->topLevelWindows().last() == window; }));
    QCOMPARE(probe->topLevelWindows().contains(other), true);
    xcb_destroy_window(probe->getConnection(), other);
    xcb_destroy_window(probe->getConnection(), later);
    probe->sync();
    QVERIFY(bed->getLog().messages().filter("Could not").isEmpty());
}

void DisplayConfigurationX11Test::secondOpenDisplayMakesNoSecondWindow()
{
    StationDisplay display(server->getDisplayNumber());
    QVERIFY(display.openDisplay());
    probe->sync();
    QVERIFY(DaemonRunner::waitUntil([&] { return probe->windowsNamed(windowName).size() == 1; }));
    const xcb_window_t window = probe->windowsNamed(windowName).first();
    const int windowCount = probe->topLevelWindows().size();
    QVERIFY(display.openDisplay());
    display.update();
    probe->sync();
    QCOMPARE(probe->windowsNamed(windowName), QList<xcb_window_t>{window});
    QCOMPARE(probe->topLevelWindows().size(), windowCount);
}

void DisplayConfigurationX11Test::cursorIsInvisible()
{
    const QImage before = probe->cursorImage();
    QVERIFY(!before.isNull());
    StationDisplay display(server->getDisplayNumber());
    QVERIFY(display.openDisplay());
    // The pointer rests in the middle of the screen, over the overlay.
    QImage cursor;
    QVERIFY(updateUntil(display, [&] {
        cursor = probe->cursorImage();
        return cursor.size() == QSize(1, 1);
    }));
    QCOMPARE(qAlpha(cursor.pixel(0, 0)), 0);
    QVERIFY(before.size() != QSize(1, 1));
}

void DisplayConfigurationX11Test::emptyWmStateListSendsNothing()
{
    StationDisplay display(server->getDisplayNumber());
    QVERIFY(display.openDisplay());
    probe->sync();
    QVERIFY(DaemonRunner::waitUntil([&] { return probe->windowsNamed(windowName).size() == 1; }));
    const xcb_window_t window = probe->windowsNamed(windowName).first();
    const xcb_atom_t wmState = probe->atom("_NET_WM_STATE");
    probe->deleteProperty(window, wmState);

    display.setWmStateBeforeMapping({});
    display.update();
    probe->sync();
    QCOMPARE(probe->property(window, wmState).type, xcb_atom_t(XCB_NONE));

    // The same call with one state does set the property.
    const xcb_atom_t above = probe->atom("_NET_WM_STATE_ABOVE");
    display.setWmStateBeforeMapping({above});
    QVERIFY(updateUntil(display, [&] {
        return XDisplayProbe::values32(probe->property(window, wmState)) == QList<uint32_t>{above};
    }));
}

void DisplayConfigurationX11Test::windowManagerIsAskedAgainAfterMapAndObscuring()
{
    // A probe of its own plays the window manager, which gets the requests.
    XDisplayProbe manager(server->getDisplayName());
    QVERIFY(manager.becomeWindowManager());
    const xcb_atom_t above = manager.atom("_NET_WM_STATE_ABOVE");
    const xcb_atom_t onTop = manager.atom("_NET_WM_STATE_STAYS_ON_TOP");

    StationDisplay display(server->getDisplayNumber());
    QVERIFY(display.openDisplay());
    // The window reaches past the screen by its border, so the server reports
    // it partially obscured as soon as it is mapped: the map notification and
    // that visibility change each ask for both states.
    QList<XDisplayProbe::WmStateRequest> requests;
    QVERIFY(updateUntil(display, [&] {
        requests += manager.takeWmStateRequests();
        return requests.size() >= 4;
    }));
    const xcb_window_t window = manager.windowsNamed(windowName).value(0);
    QCOMPARE(requests.size(), 4);
    for (int i = 0; i < requests.size(); ++i) {
        QCOMPARE(requests.at(i).window, window);
        QCOMPARE(requests.at(i).action, 1u);
        QCOMPARE(requests.at(i).state, i % 2 == 0 ? above : onTop);
    }

    // Nothing more while nothing happens.
    display.update();
    manager.sync();
    display.update();
    QCOMPARE(manager.takeWmStateRequests().size(), 0);

    // Another window over the whole overlay: asked again.
    const xcb_window_t cover = manager.mapWindow(QRect(0, 0, 1024, 768));
    requests.clear();
    QVERIFY(updateUntil(display, [&] {
        requests += manager.takeWmStateRequests();
        return requests.size() >= 2;
    }));
    QCOMPARE(requests.at(0).state, above);
    QCOMPARE(requests.at(1).state, onTop);
    xcb_destroy_window(manager.getConnection(), cover);
    manager.sync();
}

void DisplayConfigurationX11Test::keyboardPictureShowsTheLabelsOfTheKey_data()
{
    QTest::addColumn<int>("station");
    QTest::addColumn<bool>("hasPrevious");
    QTest::addColumn<bool>("hasNext");
    QTest::newRow("F1: nothing before") << 0 << false << true;
    QTest::newRow("F5: both neighbours") << 4 << true << true;
    QTest::newRow("F12: nothing after") << 11 << true << false;
    QTest::newRow("A: nothing before") << 12 << false << true;
    QTest::newRow("Z: nothing after") << 37 << true << false;
    QTest::newRow("0: nothing before") << 38 << false << true;
    QTest::newRow("9: nothing after") << 47 << true << false;
}

void DisplayConfigurationX11Test::keyboardPictureShowsTheLabelsOfTheKey()
{
    QFETCH(int, station);
    QFETCH(bool, hasPrevious);
    QFETCH(bool, hasNext);
    auto display = create(station);
    QVERIFY(display);
    display->openDisplay();
    display->configureKeyboard();
    QVERIFY(updateUntilShown(*display, *probe, QPoint(900, 380), blue));
    const QImage shot = probe->screenshot(QRect(0, 0, 1024, 768));
    QCOMPARE(shot.pixel(10, 10), blue);
    QCOMPARE(shot.pixel(10, 700), red);
    QCOMPARE(shot.pixel(1023, 767), red);

    // Baselines at y 390; the caps' labels start at x 518, 595 and 672.
    const QRect previous(512, 360, 78, 36);
    const QRect current(591, 360, 76, 36);
    const QRect next(668, 360, 80, 36);
    QVERIFY(XDisplayProbe::whitePixels(shot, current) > 20);
    QCOMPARE(XDisplayProbe::whitePixels(shot, previous) > 20, hasPrevious);
    QCOMPARE(XDisplayProbe::whitePixels(shot, next) > 20, hasNext);
    QCOMPARE(XDisplayProbe::whitePixels(shot, QRect(750, 340, 270, 80)), 0);
    QCOMPARE(XDisplayProbe::whitePixels(shot, QRect(300, 340, 200, 80)), 0);
}

void DisplayConfigurationX11Test::keyboardPictureAsksTheDatabaseInOrder()
{
    auto display = create(3);
    QVERIFY(display);
    display->openDisplay();
    const int before = bed->callCount();
    display->configureKeyboard();
    QCOMPARE(waitForCalls(before, 4),
             (QStringList{"com.orvanta.DB.DeviceGetNumberOfAssignedKeyboards",
                          "com.orvanta.DB.DeviceGetNumberOfUnassignedKeyboards",
                          "com.orvanta.DB.StationGetTag \"name\"",
                          "com.orvanta.DB.StationGetTag \"location\""}));
    QVERIFY(updateUntilShown(*display, *probe, QPoint(900, 380), blue));
    // recreateImage() asks again at the next update, in the same order.
    const int again = bed->callCount();
    display->recreateImage();
    display->update();
    QCOMPARE(waitForCalls(again, 4), bed->callsSince(before).mid(0, 4));
}

void DisplayConfigurationX11Test::stationTextsAreDrawnWhereTheTranslationPutsThem()
{
    auto display = create(3);
    QVERIFY(display);
    display->openDisplay();
    display->configureKeyboard();
    QVERIFY(updateUntilShown(*display, *probe, QPoint(900, 380), blue));
    const QImage shot = probe->screenshot(QRect(0, 0, 1024, 768));
    // Black text on the lines of station-num, -name, -location, configure-keyboard,
    // configure-keyboard-key and the two counts, nowhere else on the left.
    for (const int baseline : {60, 100, 140, 200, 240, 480, 520}) {
        QVERIFY2(darkPixels(shot, QRect(40, baseline - 18, 200, 20)) > 20,
                 qPrintable(QString("no text on the line at %1").arg(baseline)));
    }
    QCOMPARE(darkPixels(shot, QRect(40, 280, 200, 60)), 0);
    QCOMPARE(darkPixels(shot, QRect(600, 20, 400, 300)), 0);
}

void DisplayConfigurationX11Test::mousePicturesAndTheirCalls()
{
    auto display = create(3);
    QVERIFY(display);
    display->openDisplay();
    display->configureKeyboard();
    QVERIFY(updateUntilShown(*display, *probe, QPoint(10, 10), blue));

    int before = bed->callCount();
    display->configureMouse(true);
    QVERIFY(updateUntilShown(*display, *probe, QPoint(10, 10), yellow));
    QCOMPARE(bed->callsSince(before), QStringList());

    before = bed->callCount();
    display->configureMouse(false);
    QCOMPARE(waitForCalls(before, 4), (QStringList{"com.orvanta.DB.DeviceGetNumberOfAssignedMice",
                                                   "com.orvanta.DB.DeviceGetNumberOfUnassignedMice",
                                                   "com.orvanta.DB.StationGetTag \"name\"",
                                                   "com.orvanta.DB.StationGetTag \"location\""}));
    QVERIFY(updateUntilShown(*display, *probe, QPoint(10, 10), green));
}

void DisplayConfigurationX11Test::badgeIsStretchedOverThePicture_data()
{
    QTest::addColumn<int>("overlay");
    QTest::addColumn<QRgb>("topRight");
    QTest::addColumn<QRgb>("bottomLeft");
    QTest::newRow("alpha") << 0 << magenta << red;
    QTest::newRow("beta") << 1 << blue << cyan;
    QTest::newRow("none") << 2 << blue << red;
}

void DisplayConfigurationX11Test::badgeIsStretchedOverThePicture()
{
    QFETCH(int, overlay);
    QFETCH(QRgb, topRight);
    QFETCH(QRgb, bottomLeft);
    auto display = create(3, static_cast<DisplayConfiguration::OverlayImage>(overlay));
    QVERIFY(display);
    display->openDisplay();
    bed->getLog().clear();
    display->configureKeyboard();
    QVERIFY(updateUntilShown(*display, *probe, QPoint(500, 300), blue));
    const QImage shot = probe->screenshot(QRect(0, 0, 1024, 768));
    QCOMPARE(shot.pixel(1000, 20), topRight);
    QCOMPARE(shot.pixel(20, 750), bottomLeft);
    QCOMPARE(bed->getLog().messages().filter("overlay file"), QStringList());
}

void DisplayConfigurationX11Test::missingBadgeIsLoggedAndLeftOut()
{
    const QByteArray beta = readFile(OverlayTestBed::dataPath("images/BETA.png"));
    QVERIFY(OverlayTestBed::removeDataFile("images/BETA.png"));
    auto display = create(3, DisplayConfiguration::OVERLAY_IMAGE_BETA);
    QVERIFY(display);
    display->openDisplay();
    bed->getLog().clear();
    display->configureKeyboard();
    // Composed on the station's thread once the values are in.
    QVERIFY(DaemonRunner::waitUntil(
        [&] { return !bed->getLog().messages().filter("overlay file").isEmpty(); }));
    QVERIFY(OverlayTestBed::writeDataFile("images/BETA.png", beta));
    QCOMPARE(bed->getLog().messages().filter("overlay file"),
             QStringList{"Could not open overlay file '/usr/share/orvanta/images/BETA.png'"});
    QCOMPARE(bed->getLog()
                 .find("Could not open overlay file "
                       "'/usr/share/orvanta/images/BETA.png'")
                 ->level,
             Orvanta::Logger::LEVEL_WARNING);
    QVERIFY(updateUntilShown(*display, *probe, QPoint(20, 750), red));
}

void DisplayConfigurationX11Test::missingBackgroundKeepsThePreviousPicture()
{
    auto display = create(3);
    QVERIFY(display);
    display->openDisplay();
    display->configureKeyboard();
    QVERIFY(updateUntilShown(*display, *probe, QPoint(10, 10), blue));
    display->configureMouse(true);
    QVERIFY(updateUntilShown(*display, *probe, QPoint(10, 10), yellow));

    const QByteArray mouse = readFile(OverlayTestBed::dataPath("images/configure-mouse.png"));
    QVERIFY(OverlayTestBed::removeDataFile("images/configure-mouse.png"));
    bed->getLog().clear();
    display->configureMouse(false);
    QVERIFY(DaemonRunner::waitUntil([&] { return !bed->getLog().messages().isEmpty(); }));
    QVERIFY(OverlayTestBed::writeDataFile("images/configure-mouse.png", mouse));
    QCOMPARE(bed->getLog().messages(), QStringList{"Could not load image 'configure-mouse.png'"});
    QCOMPARE(bed->getLog().entries().first().level, Orvanta::Logger::LEVEL_WARNING);
    // Uncovered, the window gets the picture that is still there.
    const xcb_window_t cover = probe->mapWindow(QRect(0, 0, 200, 200));
    QCOMPARE(probe->screenshot(QRect(10, 10, 1, 1)).pixel(0, 0), qRgb(0, 0, 0));
    xcb_destroy_window(probe->getConnection(), cover);
    probe->sync();
    QVERIFY(updateUntilShown(*display, *probe, QPoint(10, 10), yellow));
    QCOMPARE(probe->screenshot(QRect(199, 199, 1, 1)).pixel(0, 0), yellow);
}

void DisplayConfigurationX11Test::backgroundsKeepTheArtworksShape()
{
    const QSize screen(1024, 768);
    BackgroundLibrary& library = BackgroundLibrary::shared();
    const auto full = library.obtain("configure-keyboard.png", QString(), screen);
    QVERIFY(full);
    QCOMPARE(full->placement.getScale(), 1.0);
    QCOMPARE(full->placement.getArea(), QRect(QPoint(0, 0), screen));
    QCOMPARE(full->image.size(), screen);
    QCOMPARE(full->image.dotsPerMeterX(), 2835);
    QCOMPARE(full->image.dotsPerMeterY(), 2835);

    // Half as wide as the screen: the same factor both ways, centred, and the
    // fonts keep their size.
    const auto half = library.obtain("half.png", QString(), screen);
    QVERIFY(half);
    QCOMPARE(half->placement.getScale(), 1.0);
    QCOMPARE(half->placement.getArea(), QRect(256, 0, 512, 768));
    QCOMPARE(half->image.size(), screen);
    QCOMPARE(half->image.dotsPerMeterX(), 2835);
    QCOMPARE(half->image.dotsPerMeterY(), 2835);

    bed->getLog().clear();
    QVERIFY(!library.obtain("absent.png", QString(), screen));
    QCOMPARE(bed->getLog().messages(), QStringList{"Could not load image 'absent.png'"});
}

void DisplayConfigurationX11Test::screenChangeToTheSameSizeDoesNothingAndANewSizeRedraws()
{
    auto display = create(3);
    QVERIFY(display);
    display->openDisplay();
    display->configureKeyboard();
    QVERIFY(updateUntilShown(*display, *probe, QPoint(10, 10), blue));
    const xcb_window_t window = probe->windowsNamed(windowName).value(0);
    QVERIFY(probe->randrEventBase() != 0);

    const int before = bed->callCount();
    probe->sendScreenChange(window, 1024, 768);
    // Sent after the first, so handled after it: once the window has the new
    // size, the first notification has been dealt with.
    probe->sendScreenChange(window, 800, 600);
    QVERIFY(
        updateUntil(*display, [&] { return probe->geometry(window) == QRect(0, 0, 800, 600); }));
    // One redraw only: the four calls of one keyboard picture.
    QCOMPARE(waitForCalls(before, 4).size(), 4);
    QVERIFY(updateUntilShown(*display, *probe, QPoint(799, 599), red));
    display->update();
    QCOMPARE(bed->callsSince(before).size(), 4);
}

void DisplayConfigurationX11Test::lostServerIsLoggedOnceAndTheOverlayComesBack()
{
    XvfbServer own;
    QVERIFY(own.start());
    auto display = create(3, DisplayConfiguration::OVERLAY_IMAGE_NONE, &own);
    QVERIFY(display);
    display->configureKeyboard();
    {
        const XDisplayProbe ownProbe(own.getDisplayName());
        QVERIFY(updateUntilShown(*display, ownProbe, QPoint(10, 10), blue));
    }
    const QString lost = QString("Lost connection to display %1").arg(own.getDisplayNumber());
    const QString cannotConnect =
        QString("Could not get connection to display :%1").arg(own.getDisplayNumber());

    own.kill();
    bed->getLog().clear();
    QVERIFY(updateUntil(*display, [&] { return bed->getLog().contains(lost); }));
    QCOMPARE(bed->getLog().messages().first(), lost);
    QCOMPARE(bed->getLog().entries().first().level, Orvanta::Logger::LEVEL_INFO);
    // Attempts go on, one an update; only the first failure is logged.
    QVERIFY(updateUntil(*display, [&] { return bed->getLog().count(cannotConnect) == 1; }));
    for (int update = 0; update < 3; ++update) {
        display->update();
        QTest::qWait(120);
    }
    QCOMPARE(bed->getLog().count(cannotConnect), 1);
    QCOMPARE(bed->getLog().count(lost), 1);
    QCOMPARE(bed->getLog().messages().size(), 2);

    QVERIFY(own.start());
    const XDisplayProbe ownProbe(own.getDisplayName());
    QVERIFY(ownProbe.isConnected());
    QVERIFY(updateUntilShown(*display, ownProbe, QPoint(10, 10), blue));
    QCOMPARE(ownProbe.windowsNamed(windowName).size(), 1);
    QCOMPARE(ownProbe.screenshot(QRect(10, 700, 1, 1)).pixel(0, 0), red);
    QCOMPARE(bed->getLog().count(lost), 1);
    display.reset();
}

void DisplayConfigurationX11Test::largerScreenShowsEverythingAtTheScaledPositions()
{
    XvfbServer larger(QStringLiteral("1280x1024x24"));
    QVERIFY(larger.start());
    const XDisplayProbe largerProbe(larger.getDisplayName());
    QVERIFY(largerProbe.isConnected());
    auto display = create(4, DisplayConfiguration::OVERLAY_IMAGE_NONE, &larger);
    QVERIFY(display);
    display->openDisplay();
    display->configureKeyboard();
    QVERIFY(updateUntilShown(*display, largerProbe, QPoint(1279, 1023), red));
    const QImage shot = largerProbe.screenshot(QRect(0, 0, 1280, 1024));
    // The picture keeps its shape: scaled by 1.25 both ways, 32 rows of
    // margin above and below. Red from row 576 of the picture on: row 752 of
    // the screen; the margins repeat the picture's first and last rows.
    QCOMPARE(shot.pixel(10, 744), blue);
    QCOMPARE(shot.pixel(10, 760), red);
    QCOMPARE(shot.pixel(10, 1010), red);
    // The labels F4, F5, F6 start at x 648, 744 and 840 on the baseline at y 520.
    QVERIFY(XDisplayProbe::whitePixels(shot, QRect(644, 478, 92, 46)) > 20);
    QVERIFY(XDisplayProbe::whitePixels(shot, QRect(740, 478, 92, 46)) > 20);
    QVERIFY(XDisplayProbe::whitePixels(shot, QRect(836, 478, 100, 46)) > 20);
    QCOMPARE(XDisplayProbe::whitePixels(shot, QRect(940, 450, 330, 100)), 0);
    QCOMPARE(XDisplayProbe::whitePixels(shot, QRect(300, 450, 340, 100)), 0);
    // The texts on their scaled lines (baseline 60 of the picture is 107 here).
    for (const int baseline : {60, 100, 140, 200, 240, 480, 520}) {
        const int y = 32 + static_cast<int>(baseline * 1.25);
        QVERIFY2(darkPixels(shot, QRect(50, y - 22, 250, 24)) > 20,
                 qPrintable(QString("no text on the line at %1").arg(y)));
    }
}

void DisplayConfigurationX11Test::sixteenBitScreenShowsTheRightColours()
{
    XvfbServer deep16(QStringLiteral("1024x768x16"));
    QVERIFY(deep16.start());
    const XDisplayProbe deepProbe(deep16.getDisplayName());
    QVERIFY(deepProbe.isConnected());
    auto display = create(4, DisplayConfiguration::OVERLAY_IMAGE_ALPHA, &deep16);
    QVERIFY(display);
    display->openDisplay();
    display->configureKeyboard();
    constexpr quint16 blue16 = 0x001f;
    constexpr quint16 red16 = 0xf800;
    constexpr quint16 magenta16 = 0xf81f;
    QVERIFY(updateUntil(*display, [&] {
        const QImage shot = deepProbe.screenshot(QRect(10, 10, 1, 1));
        return !shot.isNull() && pixel16(shot, 0, 0) == blue16;
    }));
    const QImage shot = deepProbe.screenshot(QRect(0, 0, 1024, 768));
    QCOMPARE(shot.format(), QImage::Format_RGB16);
    QCOMPARE(pixel16(shot, 10, 10), blue16);
    QCOMPARE(pixel16(shot, 1023, 400), blue16);
    QCOMPARE(pixel16(shot, 10, 700), red16);
    QCOMPARE(pixel16(shot, 1023, 767), red16);
    QCOMPARE(pixel16(shot, 1000, 20), magenta16);
    // The labels F4, F5 and F6 in white.
    const QImage labels = shot.convertToFormat(QImage::Format_RGB32);
    QVERIFY(XDisplayProbe::whitePixels(labels, QRect(512, 360, 78, 36)) > 20);
    QVERIFY(XDisplayProbe::whitePixels(labels, QRect(591, 360, 76, 36)) > 20);
    QVERIFY(XDisplayProbe::whitePixels(labels, QRect(668, 360, 80, 36)) > 20);
}

void DisplayConfigurationX11Test::ultraHighDefinitionScreenShowsTheWholePicture()
{
    XvfbServer large(QStringLiteral("3840x2160x24"));
    QVERIFY(large.start());
    const XDisplayProbe largeProbe(large.getDisplayName());
    QVERIFY(largeProbe.isConnected());
    auto display = create(4, DisplayConfiguration::OVERLAY_IMAGE_NONE, &large);
    QVERIFY(display);
    display->openDisplay();
    display->configureKeyboard();
    // The last pixel arrives only if every band of the upload did.
    QVERIFY(updateUntilShown(*display, largeProbe, QPoint(3839, 2159), red));

    // A whole column and the last rows, across every band boundary. The
    // window's border takes the screen's first row and column.
    const QImage column = largeProbe.screenshot(QRect(3000, 0, 1, 2160));
    for (int y = 1; y < 2160; ++y) {
        const QRgb expected = y < 1600 ? blue : y > 1640 ? red : column.pixel(0, y);
        QVERIFY2(column.pixel(0, y) == expected, qPrintable(QString("row %1").arg(y)));
    }
    const QImage bottom = largeProbe.screenshot(QRect(1, 2150, 3839, 10));
    for (int y = 0; y < bottom.height(); ++y) {
        for (int x = 0; x < bottom.width(); ++x) {
            QVERIFY2(bottom.pixel(x, y) == red,
                     qPrintable(QString("%1,%2").arg(x + 1).arg(y + 2150)));
        }
    }
    // The connection is intact: the next picture still arrives.
    bed->getLog().clear();
    display->configureMouse(true);
    QVERIFY(updateUntilShown(*display, largeProbe, QPoint(3839, 2159), yellow));
    QCOMPARE(bed->getLog().messages().filter("connection"), QStringList());
}

SELVANE_OVERLAY_TEST_MAIN(DisplayConfigurationX11Test, true)

#include "test_displayconfiguration_x11.moc"
