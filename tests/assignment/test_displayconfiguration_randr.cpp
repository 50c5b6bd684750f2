// The overlay on a real X.Org server (dummy video driver) whose screen changes
// its size through RandR, as a station's screen does when its resolution is
// changed: the window follows the new size and the picture is composed anew
// for it, while a notification of the size the window already has changes
// nothing. The steps run in order on one overlay.
//
// The test picture is plain colours, so that a screenshot tells for which size
// it was composed: blue, with a green right quarter above a red bottom
// quarter. Scaled to the screen, its two boundaries move with the screen's
// width and height. The translations are left out, so nothing else is drawn.
#include "OverlayTestBed.h"
#include "XDisplayProbe.h"
#include "XorgDummyServer.h"

#include "overlay/ArtworkPlacement.h"

#include <xcb/randr.h>

#include <QPainter>
#include <QtTest>

namespace {

constexpr QRgb blue = qRgb(0, 0, 255);
constexpr QRgb green = qRgb(0, 255, 0);
constexpr QRgb red = qRgb(255, 0, 0);
constexpr int pictureWidth = 800;
constexpr int pictureHeight = 600;
constexpr int greenFromX = 600;
constexpr int redFromY = 450;
// Far enough from a boundary that the smooth scaling leaves the colour pure.
constexpr int margin = 6;
constexpr int stationId = 3;

const QSize fullHd(1920, 1080);
const QSize xga(1024, 768);
const QByteArray windowName = QByteArrayLiteral("Press F Key");
// What composing the keyboard picture asks the database, in this order.
const QStringList keyboardPictureCalls = {"com.orvanta.DB.DeviceGetNumberOfAssignedKeyboards",
                                          "com.orvanta.DB.DeviceGetNumberOfUnassignedKeyboards",
                                          "com.orvanta.DB.StationGetTag \"name\"",
                                          "com.orvanta.DB.StationGetTag \"location\""};

QImage keyboardPicture()
{
    QImage picture(pictureWidth, pictureHeight, QImage::Format_RGB32);
    picture.fill(blue);
    QPainter painter(&picture);
    painter.fillRect(greenFromX, 0, pictureWidth - greenFromX, redFromY, QColor(green));
    painter.fillRect(0, redFromY, pictureWidth, pictureHeight - redFromY, QColor(red));
    return picture;
}

QRgb pixelAt(const XDisplayProbe& probe, QPoint point)
{
    const QImage shot = probe.screenshot(QRect(point, QSize(1, 1)));
    return shot.isNull() ? 0 : shot.pixel(0, 0);
}

// Whether the screen shows the picture composed for a screen of this size:
// the colours on either side of both boundaries where the scaling (one
// factor, centred) puts them, and the screen's last pixel.
bool showsPictureFor(const XDisplayProbe& probe, QSize screen)
{
    const ArtworkPlacement placement =
        ArtworkPlacement::fit(QSize(pictureWidth, pictureHeight), screen);
    const QPoint boundary = placement.rounded(greenFromX, redFromY);
    const QPoint inside = placement.getArea().topLeft() + QPoint(20, 20);
    return pixelAt(probe, QPoint(boundary.x() - margin, inside.y())) == blue &&
           pixelAt(probe, QPoint(boundary.x() + margin, inside.y())) == green &&
           pixelAt(probe, QPoint(inside.x(), boundary.y() - margin)) == blue &&
           pixelAt(probe, QPoint(inside.x(), boundary.y() + margin)) == red &&
           pixelAt(probe, QPoint(screen.width() - 1, screen.height() - 1)) == red;
}

// Makes the probe's own client receive the screen's RandR changes, as the
// overlay's does.
void selectScreenChanges(const XDisplayProbe& probe)
{
    xcb_randr_select_input(probe.getConnection(), probe.getRoot(),
                           XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE);
    probe.sync();
}

// The sizes of the screen change notifications that the probe received since
// the last call.
QList<QSize> takeScreenChanges(const XDisplayProbe& probe)
{
    xcb_connection_t* c = probe.getConnection();
    const uint8_t notify = probe.randrEventBase() + XCB_RANDR_SCREEN_CHANGE_NOTIFY;
    QList<QSize> sizes;
    while (const XcbPointer<xcb_generic_event_t> event{xcb_poll_for_event(c)}) {
        if ((event->response_type & 0x7f) == notify) {
            const auto* change =
                reinterpret_cast<const xcb_randr_screen_change_notify_event_t*>(event.get());
            sizes.append(QSize(change->width, change->height));
        }
    }
    return sizes;
}

// Waits until the probe receives a screen change notification of this size.
// The server sends it to every client that asked in the same pass, so it
// reaches the overlay's connection at about the same time.
bool waitForScreenChange(const XDisplayProbe& probe, QSize size)
{
    return DaemonRunner::waitUntil([&] { return takeScreenChanges(probe).contains(size); });
}

} // namespace

class DisplayConfigurationRandrTest : public QObject
{
    Q_OBJECT

public:
    explicit DisplayConfigurationRandrTest(const XorgDummyServer& xorg) : server(xorg) {}

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void pictureFillsTheFirstScreenSize();
    void smallerScreenResizesTheWindowAndComposesThePictureAnew();
    void newModeOfTheSameSizeChangesNothingUntilTheSizeChanges();

private:
    bool updateUntil(const std::function<bool()>& condition);
    bool updateUntilShownAt(QSize screen);
    // Enough for a notification on its way to arrive and be handled.
    void updateAFewTimes();
    QStringList waitForCalls(int from, int count);

    const XorgDummyServer& server;
    std::unique_ptr<OverlayTestBed> bed;
    std::unique_ptr<XDisplayProbe> probe;
    std::unique_ptr<DisplayConfiguration> display;
    xcb_window_t window = XCB_NONE;
};

void DisplayConfigurationRandrTest::initTestCase()
{
    QVERIFY(OverlayTestBed::writePicture("configure-keyboard.png", keyboardPicture()));
    bed = std::make_unique<OverlayTestBed>();
    QVERIFY(bed->isReady());
    probe = std::make_unique<XDisplayProbe>(server.getDisplayName());
    QVERIFY(probe->isConnected());
    QVERIFY(probe->randrEventBase() != 0);
    selectScreenChanges(*probe);

    display = bed->create(server.getDisplayNumber(), stationId);
    display->openDisplay();
    QVERIFY(DaemonRunner::waitUntil([&] { return probe->windowsNamed(windowName).size() == 1; }));
    window = probe->windowsNamed(windowName).first();
    display->configureKeyboard();
}

void DisplayConfigurationRandrTest::cleanupTestCase()
{
    display.reset();
    probe.reset();
    bed.reset();
}

void DisplayConfigurationRandrTest::init()
{
    bed->getLog().clear();
}

bool DisplayConfigurationRandrTest::updateUntil(const std::function<bool()>& condition)
{
    return DaemonRunner::waitUntil([&] {
        display->update();
        return condition();
    });
}

bool DisplayConfigurationRandrTest::updateUntilShownAt(QSize screen)
{
    return updateUntil([&] {
        return probe->geometry(window) == QRect(QPoint(0, 0), screen) &&
               showsPictureFor(*probe, screen);
    });
}

void DisplayConfigurationRandrTest::updateAFewTimes()
{
    // The station's thread handles each update and the platform is asked
    // afterwards: what they would do is given the time to happen.
    for (int update = 0; update < 5; ++update) {
        display->update();
        QTest::qWait(50);
    }
}

QStringList DisplayConfigurationRandrTest::waitForCalls(int from, int count)
{
    DaemonRunner::waitUntil([&] { return bed->callsSince(from).size() >= count; });
    return bed->callsSince(from);
}

void DisplayConfigurationRandrTest::pictureFillsTheFirstScreenSize()
{
    QVERIFY(updateUntilShownAt(fullHd));
    // The picture of the smaller screen is not what is shown.
    QVERIFY(!showsPictureFor(*probe, xga));
}

void DisplayConfigurationRandrTest::smallerScreenResizesTheWindowAndComposesThePictureAnew()
{
    const int before = bed->callCount();
    // The server may report a size more than once (the old one too, when the
    // mode changes before the screen does): only the new size counts.
    QVERIFY(server.setScreenSize(xga, 60));
    QVERIFY(updateUntilShownAt(xga));
    // Composed once for the new size, not again for its repeated notification.
    QCOMPARE(waitForCalls(before, 4), keyboardPictureCalls);
    updateAFewTimes();
    QCOMPARE(bed->callsSince(before), keyboardPictureCalls);
    QCOMPARE(bed->getLog().messages(), QStringList());
}

void DisplayConfigurationRandrTest::newModeOfTheSameSizeChangesNothingUntilTheSizeChanges()
{
    // Only a notification sent from now on counts.
    takeScreenChanges(*probe);
    const int before = bed->callCount();
    // 1024x768 at 75 Hz instead of 60: a real notification, of the size the
    // window already has.
    QVERIFY(server.setScreenSize(xga, 75));
    QVERIFY(waitForScreenChange(*probe, xga));
    updateAFewTimes();
    QCOMPARE(bed->callsSince(before), QStringList());
    QCOMPARE(probe->geometry(window), QRect(QPoint(0, 0), xga));
    QVERIFY(showsPictureFor(*probe, xga));

    // Back to the first size. The overlay handles its events in order, so once
    // it shows the new picture it has handled the same-size notification too:
    // one composition in all means that one made none.
    QVERIFY(server.setScreenSize(fullHd));
    QVERIFY(updateUntilShownAt(fullHd));
    QCOMPARE(waitForCalls(before, 4), keyboardPictureCalls);
    updateAFewTimes();
    QCOMPARE(bed->callsSince(before), keyboardPictureCalls);
    QCOMPARE(bed->getLog().messages(), QStringList());
}

int main(int argc, char** argv)
{
    return runWithXorgDummyServer<DisplayConfigurationRandrTest>(
        argc, argv, [] { return OverlayTestBed::unavailableReason(false); });
}

#include "test_displayconfiguration_randr.moc"
