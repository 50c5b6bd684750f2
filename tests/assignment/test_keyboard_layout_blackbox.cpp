// The built daemon with a German station: station 37 waits for KEY_Z, which a
// German keyboard labels Y. Its overlay shows the key caps X, Y and Z exactly
// as a US station waiting for KEY_Y does (station 36 on Xvfb, at the same
// size), the log names the layout, and the key labelled Y on an emulated
// keyboard (KEY_Z) claims the keyboard for station 37.
#include "OverlayTestBed.h"
#include "StationBlackbox.h"
#include "XDisplayProbe.h"
#include "XorgDummyServer.h"

#include <QtTest>

#include <linux/input-event-codes.h>

namespace {

const QSize fullHd(1920, 1080);
// The three key caps of the shipped keyboard picture (1024x768), with room
// around the labels, scaled to the screen.
const QRect keyCaps(qRound(500 * 1.875), qRound(340 * 1.40625), qRound(260 * 1.875),
                    qRound(70 * 1.40625));

} // namespace

class KeyboardLayoutBlackboxTest : public QObject
{
    Q_OBJECT

public:
    explicit KeyboardLayoutBlackboxTest(XorgDummyServer& xorg) : german(xorg) {}

private Q_SLOTS:
    void aGermanStationShowsYAndTheKeyLabelledYClaimsTheKeyboard();

private:
    // The screen once two screenshots in a row are the same.
    static QImage settledScreen(const XDisplayProbe& screen);

    XorgDummyServer& german;
};

QImage KeyboardLayoutBlackboxTest::settledScreen(const XDisplayProbe& screen)
{
    QImage last;
    for (int i = 0; i < 100; ++i) {
        QImage next = screen.screenshot(QRect(QPoint(0, 0), fullHd));
        if (next == last) {
            return next;
        }
        last = next;
        QTest::qWait(50);
    }
    return last;
}

void KeyboardLayoutBlackboxTest::aGermanStationShowsYAndTheKeyLabelledYClaimsTheKeyboard()
{
    QVERIFY(german.setKeyboardLayout("de"));
    XvfbServer american(QStringLiteral("1920x1080x24"));
    QVERIFY(american.start());

    StationBlackbox blackbox;
    QVERIFY(blackbox.startPlatform({"--unassigned-keyboards", "1", "--locale", "*=en_US.UTF-8"}));
    const QString keyboard = blackbox.addKeyboard();
    QVERIFY(!keyboard.isEmpty());
    QVERIFY2(blackbox.startDaemon(SELVANE_BUILT_DATA_DIR), qPrintable(blackbox.logTail()));
    QCOMPARE(blackbox.call("unassignedDeviceAdded", {keyboard}), QString());
    QCOMPARE(blackbox.call("configureKeyboard", {german.getDisplayNumber(), 37}), QString());
    QCOMPARE(blackbox.call("configureKeyboard", {american.getDisplayNumber(), 36}), QString());

    QVERIFY2(blackbox.waitForLog("Station 37 shows key Y for KEY_Z (layout de)"),
             qPrintable(blackbox.logTail()));
    const XDisplayProbe germanScreen(german.getDisplayName());
    const XDisplayProbe americanScreen(american.getDisplayName());
    QVERIFY(DaemonRunner::waitUntil([&] {
        return germanScreen.windowsNamed(StationBlackbox::windowName).size() == 1 &&
               americanScreen.windowsNamed(StationBlackbox::windowName).size() == 1;
    }));
    QVERIFY(blackbox.passTick());
    QTest::qWait(300);
    const QImage germanCaps = settledScreen(germanScreen).copy(keyCaps);
    const QImage americanCaps = settledScreen(americanScreen).copy(keyCaps);
    QVERIFY(XDisplayProbe::whitePixels(germanCaps, germanCaps.rect()) >
            100); // the labels are drawn
    QVERIFY(germanCaps == americanCaps);
    // Station 36's own key needs no other label.
    QCOMPARE(blackbox.logCount("Station 36 shows key Y for KEY_Y (layout us)"), 0);

    // The key a German keyboard labels Y sends KEY_Z.
    QVERIFY(blackbox.getDevices().pressKey(keyboard, KEY_Z));
    QVERIFY(blackbox.getDevices().releaseKey(keyboard, KEY_Z));
    QVERIFY2(blackbox.getPlatform().waitForCall(
                 QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 "
                                "\"KeyboardDevice\"")
                     .arg(keyboard)
                     .arg(german.getDisplayNumber())),
             qPrintable(blackbox.logTail()));
    QCOMPARE(blackbox.logCount(QStringLiteral("Station 37 shows key Y for KEY_Z (layout de)")), 1);
}

int main(int argc, char** argv)
{
    return runWithXorgDummyServer<KeyboardLayoutBlackboxTest>(
        argc, argv, &OverlayTestBed::stationBlackboxUnavailableReason);
}

#include "test_keyboard_layout_blackbox.moc"
