// The daemon's --grab-unassigned, in-process on a private bus with the platform simulator, an
// Xvfb station and emulated keyboards: which devices the assignment handler takes for itself
// (EVIOCGRAB) and when it lets them go, seen in the devices' state and the log lines of the
// calls. The emulated nodes answer the grab without the kernel's exclusivity behind it; that
// another reader then gets none of the keys is shown on a real kernel (tests/vm).
#include "OverlayTestBed.h"
#include "UmockdevTestbed.h"
#include "XvfbServer.h"

#include "assignment/AssignmentHandler.h"
#include "input/EventDevice.h"

#include <QPainter>
#include <QtTest>

#include <linux/input-event-codes.h>

#include <functional>
#include <memory>

namespace {

constexpr int stationId = 0;

const QByteArray translations = R"(<?xml version="1.0" encoding="UTF-8"?>
<translations>
  <language id="en">
    <string id="configure-keyboard"><text font_size="22" pos_x="40" pos_y="200" value="Press"/></string>
    <string id="configure-keyboard-key"><text font_size="20" pos_x="40" pos_y="240" value="Key %1"/></string>
  </language>
</translations>
)";

QImage keyboardPicture()
{
    QImage picture(1024, 768, QImage::Format_RGB32);
    picture.fill(qRgb(0, 0, 255));
    return picture;
}

} // namespace

class UnassignedGrabX11Test : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(OverlayTestBed::writeDataFile("translations/selvane.xml", translations));
        QVERIFY(OverlayTestBed::writePicture("configure-keyboard.png", keyboardPicture()));
        bed = std::make_unique<OverlayTestBed>(
            QStringList{QStringLiteral("--locale"), QStringLiteral("*=en_US.UTF-8")});
        QVERIFY(bed->isReady());
    }
    void cleanupTestCase() { bed.reset(); }
    void init()
    {
        testbed = std::make_unique<UmockdevTestbed>();
        server = std::make_unique<XvfbServer>();
        QVERIFY(server->start());
    }
    void cleanup()
    {
        bed->recreateCentral();
        testbed.reset();
        server.reset();
    }

    void withoutTheOptionNothingIsTaken()
    {
        bed->recreateCentral(false);
        bed->getLog().clear();
        const QString node = addUnassignedKeyboard();
        QVERIFY(!node.isEmpty());
        QVERIFY(showOverlay());
        QVERIFY(!device(node)->isGrabbed());
        // The handler had every chance: it reacts to the picture at once.
        QVERIFY(!bed->getLog().contains("Grabbed device " + node));
    }

    void unassignedDevicesAreHeldWhileTheOverlayIsDrawn()
    {
        bed->recreateCentral(true);
        bed->getLog().clear();
        const QString first = addUnassignedKeyboard();
        const QString second = addUnassignedKeyboard();
        QVERIFY(!first.isEmpty() && !second.isEmpty());
        // No overlay yet: nothing is taken.
        QVERIFY(!device(first)->isGrabbed());
        QVERIFY(!device(second)->isGrabbed());

        QVERIFY(showOverlay());
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return device(first)->isGrabbed() && device(second)->isGrabbed(); }));
        verifyLine("Grabbed device " + first);
        verifyLine("Grabbed device " + second);
        QCOMPARE(bed->getLog().count("Grabbed device " + first), 1);

        // A device that turns up while the overlay is drawn is taken at once.
        const QString third = addUnassignedKeyboard();
        QVERIFY(!third.isEmpty());
        QVERIFY(device(third)->isGrabbed());

        // The station's key claims the first keyboard: it is let go before the handler
        // drops it, so the assigned side finds it free.
        QVERIFY(testbed->pressKey(first, KEY_F1));
        QVERIFY(testbed->releaseKey(first, KEY_F1));
        QVERIFY(DaemonRunner::waitUntil([&] { return !device(first); }));
        const QStringList messages = bed->getLog().messages();
        const int released = messages.indexOf("Released device " + first);
        const int removed = messages.indexOf("Removing unassigned device " + first);
        QVERIFY2(released >= 0, qPrintable(messages.join('\n')));
        QVERIFY(removed > released);
        verifyLine("Released device " + first);
        QVERIFY(device(second)->isGrabbed());
        QVERIFY(device(third)->isGrabbed());

        // The configuration is complete: no overlay, nothing held.
        assignment().configurationComplete(server->getDisplayNumber());
        QVERIFY(!device(second)->isGrabbed());
        QVERIFY(!device(third)->isGrabbed());
        verifyLine("Released device " + second);
        verifyLine("Released device " + third);
        // And a device that comes now stays free.
        const QString fourth = addUnassignedKeyboard();
        QVERIFY(!fourth.isEmpty());
        QVERIFY(!device(fourth)->isGrabbed());
    }

    void aLostDisplayLetsGo()
    {
        const QString node = grabbedKeyboardUnderAnOverlay();
        QVERIFY(!node.isEmpty());
        server->kill();
        // The next update finds the connection gone.
        QVERIFY(updateUntil([&] { return !device(node)->isGrabbed(); }));
        verifyLine("Released device " + node);
    }

    void aDeviceRemovedByThePlatformIsLetGo()
    {
        const QString node = grabbedKeyboardUnderAnOverlay();
        QVERIFY(!node.isEmpty());
        bed->getLog().clear();
        assignment().removeUnassignedDevice(node);
        verifyLine("Released device " + node);
        const QStringList messages = bed->getLog().messages();
        QVERIFY(messages.indexOf("Released device " + node) <
                messages.indexOf("Closed device " + node));
    }

    void theEndOfTheDaemonLetsGo()
    {
        const QString node = grabbedKeyboardUnderAnOverlay();
        QVERIFY(!node.isEmpty());
        bed->getLog().clear();
        bed->recreateCentral();
        verifyLine("Released device " + node);
    }

private:
    AssignmentHandler& assignment() { return *bed->getCentral().getAssignmentHandler(); }

    QString addUnassignedKeyboard()
    {
        const QString node = testbed->addDevice(DeviceDescription::keyboard());
        if (node.isEmpty() || !assignment().addUnassignedDevice(node)) {
            return QString();
        }
        return node;
    }

    // The handler's calls come from the test, not over the bus, so nothing starts the central
    // object's timer: the test runs its updates.
    bool updateUntil(const std::function<bool()>& condition)
    {
        return DaemonRunner::waitUntil([&] {
            bed->getCentral().update();
            return condition();
        });
    }

    EventDevice* device(const QString& node) { return assignment().getEventDevice(node); }

    // A daemon that grabs, one unassigned keyboard and the station's overlay on the screen:
    // the keyboard once it is grabbed, empty when any of it failed.
    QString grabbedKeyboardUnderAnOverlay()
    {
        bed->recreateCentral(true);
        const QString node = addUnassignedKeyboard();
        if (node.isEmpty() || !showOverlay() ||
            !DaemonRunner::waitUntil([&] { return device(node)->isGrabbed(); })) {
            return QString();
        }
        return node;
    }

    // Has the Xvfb station ask for its key and waits until its picture is on the screen.
    bool showOverlay()
    {
        assignment().configureKeyboard(server->getDisplayNumber(), stationId);
        return updateUntil([&] {
            for (const DisplayConfiguration* display : assignment().getDisplayConfigurations()) {
                if (display->isPictureShown()) {
                    return true;
                }
            }
            return false;
        });
    }

    void verifyLine(const QString& message)
    {
        const LogCapture::Entry* line = bed->getLog().find(message);
        QVERIFY2(line, qPrintable("missing log line: " + message +
                                  "\nlogged: " + bed->getLog().messages().join(QLatin1Char('\n'))));
        QCOMPARE(line->level, Orvanta::Logger::LEVEL_INFO);
        QCOMPARE(line->file, QStringLiteral("EventDevice"));
        QCOMPARE(line->function, QStringLiteral("setGrabbed"));
    }

    std::unique_ptr<OverlayTestBed> bed;
    std::unique_ptr<UmockdevTestbed> testbed;
    std::unique_ptr<XvfbServer> server;
};

SELVANE_OVERLAY_TEST_MAIN(UnassignedGrabX11Test, true)
#include "test_unassigned_grab_x11.moc"
