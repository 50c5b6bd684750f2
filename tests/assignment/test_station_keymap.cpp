// The key to press, labelled as the station's keyboard layout has it, on a real
// X.Org server (dummy video driver) whose layout is set with setxkbmap, as an
// administrator or the session sets it; Xvfb would accept setxkbmap but keep
// its US map. The station's X side (StationDisplay) is driven on the test's
// thread with pictures built here: station 37 (its texts the same in every
// picture), a plain blue background, white key labels and texts.
//
// Since only the label changes, a station waiting for KEY_Z on a German map
// must look exactly like one waiting for KEY_Y on a US map.
#include "OverlayTestBed.h"
#include "XDisplayProbe.h"
#include "XorgDummyServer.h"
#include "XvfbServer.h"

#include "overlay/ArtworkPlacement.h"
#include "overlay/OverlayComposer.h"
#include "overlay/StationDisplay.h"

#include <QStandardPaths>
#include <QtTest>

namespace {

constexpr QRgb blue = qRgb(0, 0, 255);
constexpr int pictureWidth = 1024;
constexpr int pictureHeight = 768;
constexpr int stationId = 37;
const QSize fullHd(1920, 1080);

const QByteArray translations = R"(<?xml version="1.0" encoding="UTF-8"?>
<translations>
  <language id="en">
    <string id="station-num"><text font_size="20" pos_x="40" pos_y="60" value="Station %1"/></string>
    <string id="configure-keyboard"><text font_size="22" pos_x="40" pos_y="200" value="Press"/></string>
    <string id="configure-keyboard-key"><text font_size="20" pos_x="40" pos_y="240" value="Key %1"/></string>
    <string id="keyboards-available"><text font_size="20" pos_x="40" pos_y="480" value="Free %1"/></string>
    <string id="keyboards-assigned"><text font_size="20" pos_x="40" pos_y="520" value="Used %1"/></string>
    <string id="configure-mouse"><text font_size="20" pos_x="40" pos_y="200" value="Click"/></string>
  </language>
</translations>
)";

// The three key caps in the background's pixel space (labels at y 390).
const QRect previousCap(512, 360, 78, 36);
const QRect currentCap(591, 360, 76, 36);
const QRect nextCap(668, 360, 80, 36);

QImage plain(QRgb colour)
{
    QImage picture(pictureWidth, pictureHeight, QImage::Format_RGB32);
    picture.fill(colour);
    return picture;
}

} // namespace

class StationKeymapTest : public QObject
{
    Q_OBJECT

public:
    explicit StationKeymapTest(XorgDummyServer& xorg) : server(xorg) {}

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void aGermanStationWaitingForZLooksLikeAUsOneWaitingForY();
    void aFrenchStationWaitingForQShowsA();
    void aFrenchStationWaitingForMShowsACommaWithoutNeighbours();
    void functionKeysLookTheSameOnEveryLayout();
    void aRussianMapWithUsShowsTheLatinLetter();
    void aLayoutChangedWhileShownIsRedrawnWithTheNewLabel();
    void aMapChangeThatKeepsTheLabelDrawsNothing();
    void theLabelIsLoggedOncePerKeyboardStep();
    void aUsMapShowsTheUsPicture_data();
    void aUsMapShowsTheUsPicture();

private:
    OverlayContent keyboardStep(const QString& key);
    // Sets the layout and waits until the station has read the new map.
    bool switchLayout(const QString& layout);
    // The screen once it shows what the station drew last.
    QImage shot(StationDisplay& display, const XDisplayProbe& screen, QSize size);
    // Shows the key's picture under the layout and returns the screen.
    QImage showUnder(const QString& layout, const QString& key);
    QRect scaled(const QRect& area) const;
    int keyLabelLines() const;

    XorgDummyServer& server;
    std::unique_ptr<OverlayTestBed> bed;
    std::unique_ptr<XDisplayProbe> probe;
    std::unique_ptr<StationDisplay> station;
    int generation = 0;
};

void StationKeymapTest::initTestCase()
{
    QVERIFY(OverlayTestBed::writeDataFile("translations/selvane.xml", translations));
    QVERIFY(OverlayTestBed::writePicture("configure-keyboard.png", plain(blue)));
    QVERIFY(OverlayTestBed::writePicture("configure-mouse.png", plain(blue)));
    bed = std::make_unique<OverlayTestBed>();
    QVERIFY(bed->isReady());
    QVERIFY(bed->getCentral().getLanguage("en"));
    probe = std::make_unique<XDisplayProbe>(server.getDisplayName());
    QVERIFY(probe->isConnected());
}

void StationKeymapTest::cleanupTestCase()
{
    probe.reset();
    bed.reset();
}

void StationKeymapTest::init()
{
    QVERIFY(server.setKeyboardLayout("us"));
    station = std::make_unique<StationDisplay>(server.getDisplayNumber());
    station->update();
    QVERIFY(station->isOpen());
    QCOMPARE(station->getKeyboardLayout(), QString("us"));
    bed->getLog().clear();
}

void StationKeymapTest::cleanup()
{
    station.reset();
}

OverlayContent StationKeymapTest::keyboardStep(const QString& key)
{
    OverlayContent content;
    content.generation = ++generation;
    content.step = OverlayContent::STEP_KEYBOARD;
    content.stationId = stationId;
    content.language = bed->getCentral().getLanguage("en");
    content.assignmentKey = key;
    content.available = 5;
    content.assigned = 2;
    return content;
}

bool StationKeymapTest::switchLayout(const QString& layout)
{
    return server.setKeyboardLayout(layout) && DaemonRunner::waitUntil([&] {
               station->update();
               return station->getKeyboardLayout() == layout;
           });
}

QImage StationKeymapTest::shot(StationDisplay& display, const XDisplayProbe& screen, QSize size)
{
    // The station draws its window when the server exposes it, and its
    // requests go out on its own connection: two equal screenshots in a row,
    // with the station's events handled in between, mean that all is drawn.
    QImage last;
    for (int i = 0; i < 40; ++i) {
        display.update();
        QTest::qWait(25);
        QImage next = screen.screenshot(QRect(QPoint(0, 0), size));
        if (next == last) {
            return next;
        }
        last = next;
    }
    return last;
}

QImage StationKeymapTest::showUnder(const QString& layout, const QString& key)
{
    if (station->getKeyboardLayout() != layout && !switchLayout(layout)) {
        return QImage();
    }
    if (!station->show(keyboardStep(key))) {
        return QImage();
    }
    return shot(*station, *probe, fullHd);
}

QRect StationKeymapTest::scaled(const QRect& area) const
{
    // The artwork keeps its shape: one factor both ways, centred.
    const ArtworkPlacement placement =
        ArtworkPlacement::fit(QSize(pictureWidth, pictureHeight), fullHd);
    const double scale = placement.getScale();
    return QRect(placement.rounded(area.x(), area.y()),
                 QSize(qRound(area.width() * scale), qRound(area.height() * scale)));
}

int StationKeymapTest::keyLabelLines() const
{
    int count = 0;
    for (const LogCapture::Entry& entry : bed->getLog().entries()) {
        count += entry.message.contains(QLatin1String(" shows key ")) ? 1 : 0;
    }
    return count;
}

void StationKeymapTest::aGermanStationWaitingForZLooksLikeAUsOneWaitingForY()
{
    const QImage usY = showUnder("us", "KEY_Y");
    QVERIFY(!usY.isNull());
    // X, Y and Z on the caps; "Key Y" in the text.
    QVERIFY(XDisplayProbe::whitePixels(usY, scaled(previousCap)) > 20);
    QVERIFY(XDisplayProbe::whitePixels(usY, scaled(nextCap)) > 20);
    const QImage usZ = showUnder("us", "KEY_Z");
    QVERIFY(usZ != usY);

    const QImage germanZ = showUnder("de", "KEY_Z");
    QVERIFY(germanZ == usY);
    QCOMPARE(bed->getLog().count("Station 37 shows key Y for KEY_Z (layout de)"), 1);
    const LogCapture::Entry* line =
        bed->getLog().find("Station 37 shows key Y for KEY_Z (layout de)");
    QCOMPARE(line->level, Orvanta::Logger::LEVEL_INFO);
    QCOMPARE(line->file, QString("DisplayConfiguration"));
    // And the other way round: the German key of KEY_Y carries a Z.
    QVERIFY(showUnder("de", "KEY_Y") == usZ);
}

void StationKeymapTest::aFrenchStationWaitingForQShowsA()
{
    const QImage usA = showUnder("us", "KEY_A");
    QVERIFY(!usA.isNull());
    QVERIFY(showUnder("fr", "KEY_Q") == usA);
    QCOMPARE(bed->getLog().count("Station 37 shows key A for KEY_Q (layout fr)"), 1);
}

void StationKeymapTest::aFrenchStationWaitingForMShowsACommaWithoutNeighbours()
{
    const QImage usM = showUnder("us", "KEY_M");
    QVERIFY(XDisplayProbe::whitePixels(usM, scaled(previousCap)) > 20);
    QVERIFY(XDisplayProbe::whitePixels(usM, scaled(nextCap)) > 20);
    const QImage frenchM = showUnder("fr", "KEY_M");
    QVERIFY(!frenchM.isNull());
    QVERIFY(XDisplayProbe::whitePixels(frenchM, scaled(currentCap)) > 0);
    QVERIFY(XDisplayProbe::whitePixels(frenchM, scaled(currentCap)) <
            XDisplayProbe::whitePixels(usM, scaled(currentCap)));
    QCOMPARE(XDisplayProbe::whitePixels(frenchM, scaled(previousCap)), 0);
    QCOMPARE(XDisplayProbe::whitePixels(frenchM, scaled(nextCap)), 0);
    QCOMPARE(bed->getLog().count("Station 37 shows key , for KEY_M (layout fr)"), 1);
}

void StationKeymapTest::functionKeysLookTheSameOnEveryLayout()
{
    const QImage us = showUnder("us", "KEY_F3");
    QVERIFY(!us.isNull());
    QVERIFY(showUnder("de", "KEY_F3") == us);
    QVERIFY(showUnder("fr", "KEY_F3") == us);
    QCOMPARE(keyLabelLines(), 0);
}

void StationKeymapTest::aRussianMapWithUsShowsTheLatinLetter()
{
    const QImage us = showUnder("us", "KEY_Z");
    QVERIFY(!us.isNull());
    QVERIFY(showUnder("ru,us", "KEY_Z") == us);
    QCOMPARE(keyLabelLines(), 0);
}

void StationKeymapTest::aLayoutChangedWhileShownIsRedrawnWithTheNewLabel()
{
    const QImage usY = showUnder("us", "KEY_Y");
    const QImage usZ = showUnder("us", "KEY_Z");
    QVERIFY(!usY.isNull() && usZ != usY);
    // Nothing is shown anew from here on: the station redraws by itself.
    QVERIFY(switchLayout("de"));
    QVERIFY(shot(*station, *probe, fullHd) == usY);
    QCOMPARE(bed->getLog().count("Station 37 shows key Y for KEY_Z (layout de)"), 1);
    QVERIFY(switchLayout("us"));
    QVERIFY(shot(*station, *probe, fullHd) == usZ);
}

// A mark painted over the overlay stays until the station draws there again:
// a new map that keeps the label draws nothing, one that changes it draws the
// label's key cap anew.
void StationKeymapTest::aMapChangeThatKeepsTheLabelDrawsNothing()
{
    QVERIFY(!showUnder("us", "KEY_F3").isNull());
    const QList<xcb_window_t> overlays = probe->windowsNamed("Press F Key");
    QCOMPARE(overlays.size(), 1);
    const QRect mark(10, 10, 40, 40);
    probe->paintBlack(overlays.first(), mark);
    QVERIFY(switchLayout("de"));
    QTest::qWait(200);
    station->update();
    QCOMPARE(XDisplayProbe::whitePixels(shot(*station, *probe, fullHd), mark), 0);
    QCOMPARE(probe->screenshot(mark).pixel(5, 5), qRgb(0, 0, 0));

    // With a letter the new map changes the label, and the mark on its cap is gone.
    QVERIFY(!showUnder("de", "KEY_Z").isNull());
    const QRect cap = scaled(currentCap);
    probe->paintBlack(overlays.first(), cap);
    QCOMPARE(XDisplayProbe::whitePixels(probe->screenshot(cap), cap.translated(-cap.topLeft())), 0);
    QVERIFY(switchLayout("us"));
    QVERIFY(XDisplayProbe::whitePixels(shot(*station, *probe, fullHd), cap) > 20);
}

void StationKeymapTest::theLabelIsLoggedOncePerKeyboardStep()
{
    QVERIFY(!showUnder("de", "KEY_Z").isNull());
    // A count change redraws the same step.
    QVERIFY(station->show(keyboardStep("KEY_Z")));
    QCOMPARE(keyLabelLines(), 1);
    OverlayContent mouse = keyboardStep("BTN_LEFT");
    mouse.step = OverlayContent::STEP_MOUSE;
    QVERIFY(station->show(mouse));
    QVERIFY(station->show(keyboardStep("KEY_Z")));
    QCOMPARE(bed->getLog().count("Station 37 shows key Y for KEY_Z (layout de)"), 2);
}

// Xvfb keeps a US map whatever it is told: its picture is the one composed
// without a keyboard map at all, pixel for pixel.
void StationKeymapTest::aUsMapShowsTheUsPicture_data()
{
    QTest::addColumn<QString>("key");
    QTest::newRow("a letter") << "KEY_Z";
    QTest::newRow("the first letter") << "KEY_A";
    QTest::newRow("a function key") << "KEY_F3";
    QTest::newRow("a digit") << "KEY_5";
}

void StationKeymapTest::aUsMapShowsTheUsPicture()
{
    QFETCH(QString, key);
    XvfbServer xvfb(QStringLiteral("1024x768x24"));
    QVERIFY(xvfb.start());
    StationDisplay display(xvfb.getDisplayNumber());
    display.update();
    QVERIFY(display.isOpen());
    QCOMPARE(display.getKeyboardLayout(), QString("us"));
    const OverlayContent content = keyboardStep(key);
    QVERIFY(display.show(content));
    const XDisplayProbe screen(xvfb.getDisplayName());
    const QImage shown = shot(display, screen, QSize(1024, 768));

    const std::optional<OverlayPicture> withoutMap =
        OverlayComposer::compose(content, QSize(1024, 768));
    QVERIFY(withoutMap);
    // The window's inside starts after its border; what of it the screen shows.
    const QList<xcb_window_t> overlays = screen.windowsNamed("Press F Key");
    QCOMPARE(overlays.size(), 1);
    const int border = screen.borderWidth(overlays.first());
    const QRect inside = screen.geometry(overlays.first()).translated(border, border);
    const QRect visible = inside.intersected(QRect(0, 0, 1024, 768));
    QVERIFY(!visible.isEmpty());
    const QImage composed =
        OverlayComposer::renderWhole(*withoutMap).convertToFormat(shown.format());
    QVERIFY(shown.copy(visible) == composed.copy(visible.translated(-inside.topLeft())));
    QCOMPARE(keyLabelLines(), 0);
}

int main(int argc, char** argv)
{
    return runWithXorgDummyServer<StationKeymapTest>(argc, argv, [] {
        QString reason = OverlayTestBed::unavailableReason(true);
        if (reason.isEmpty() && QStandardPaths::findExecutable("setxkbmap").isEmpty()) {
            reason = QStringLiteral("setxkbmap is not installed (x11-xkb-utils)");
        }
        return reason;
    });
}

#include "test_station_keymap.moc"
