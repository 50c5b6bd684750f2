#include "UmockdevTestbed.h"

#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "sequences/KeySequence.h"
#include "sequences/KeySequenceAction.h"

#include <QtTest>

#include <linux/input-event-codes.h>

namespace {

// Counts how often the sequence performed it.
class CountingAction : public KeySequenceAction
{
public:
    explicit CountingAction(int* counter) : performed(counter) {}
    void performAction(const EventDevice*) const override { ++*performed; }

private:
    int* performed;
};

} // namespace

// Matching a key sequence against the key state of an emulated keyboard: the
// sequence is checked during every key change the device reports, as the
// handlers do.
class KeySequenceMatchingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { InputKeyCode::buildTable(); }
    void cleanupTestCase() { InputKeyCode::cleanupTable(); }

    void init()
    {
        testbed.reset(new UmockdevTestbed);
        matches = 0;
        performed = 0;
    }
    void cleanup()
    {
        device.reset();
        sequence.reset();
        testbed.reset();
    }

    void heldCtrlAndPressedF1MatchesOncePerPress()
    {
        openKeyboard("KEY_LEFTCTRL:KEY_F1:cmd");
        press(KEY_LEFTCTRL);
        QCOMPARE(matches, 0);
        press(KEY_F1);
        QCOMPARE(matches, 1);
        QCOMPARE(performed, 1);
        // Holding F1: auto-repeat records do not count as presses.
        repeat(KEY_F1);
        repeat(KEY_F1);
        QCOMPARE(matches, 1);
        // The release of F1 does not match either.
        release(KEY_F1);
        QCOMPARE(matches, 1);
        // Pressing F1 again does.
        press(KEY_F1);
        QCOMPARE(matches, 2);
        QCOMPARE(performed, 2);
    }

    void ctrlPressedWhileF1IsHeldDoesNotMatch()
    {
        openKeyboard("KEY_LEFTCTRL:KEY_F1:cmd");
        press(KEY_F1);
        press(KEY_LEFTCTRL);
        QCOMPARE(matches, 0);
        QCOMPARE(performed, 0);
    }

    void extraHeldKeysDoNotPreventAMatch()
    {
        openKeyboard("KEY_LEFTCTRL:KEY_F1:cmd");
        press(KEY_LEFTSHIFT);
        press(KEY_LEFTCTRL);
        press(KEY_F1);
        QCOMPARE(matches, 1);
    }

    void holdKeysMayGoDownInAnyOrder()
    {
        openKeyboard("KEY_LEFTCTRL,KEY_LEFTALT:KEY_F1:cmd");
        press(KEY_LEFTALT);
        press(KEY_LEFTCTRL);
        press(KEY_F1);
        QCOMPARE(matches, 1);
        releaseAll({KEY_F1, KEY_LEFTCTRL});
        press(KEY_LEFTCTRL);
        press(KEY_F1);
        QCOMPARE(matches, 2);
    }

    void missingHoldKeyDoesNotMatch()
    {
        openKeyboard("KEY_LEFTCTRL,KEY_LEFTALT:KEY_F1:cmd");
        press(KEY_LEFTCTRL);
        press(KEY_F1);
        QCOMPARE(matches, 0);
    }

    void twoPressKeysNeverMatch()
    {
        openKeyboard("KEY_LEFTSHIFT:KEY_A,KEY_B:cmd");
        QVERIFY(sequence->isValid());
        press(KEY_LEFTSHIFT);
        press(KEY_A);
        press(KEY_B);
        releaseAll({KEY_A, KEY_B});
        press(KEY_B);
        press(KEY_A);
        releaseAll({KEY_A, KEY_B});
        // Both in one write: still two separate key changes.
        QVERIFY(testbed->writeBytes(node, UmockdevTestbed::eventRecord(EV_KEY, KEY_A, 1) +
                                              UmockdevTestbed::eventRecord(EV_KEY, KEY_B, 1) +
                                              UmockdevTestbed::eventRecord(EV_SYN, SYN_REPORT, 0)));
        deliver();
        QVERIFY(device->isKeyPressed(KEY_A) && device->isKeyPressed(KEY_B));
        QCOMPARE(matches, 0);
    }

    void pressKeyThatIsAlsoAHoldKeyIsSatisfiedBySamePress()
    {
        openKeyboard("KEY_F1:KEY_F1:cmd");
        press(KEY_F1);
        QCOMPARE(matches, 1);
    }

    void releasesNeverMatch()
    {
        openKeyboard("KEY_LEFTCTRL:KEY_F1:cmd");
        press(KEY_LEFTALT);
        press(KEY_F1);
        press(KEY_LEFTCTRL);
        release(KEY_LEFTALT);
        QCOMPARE(matches, 0);
    }

    void keysHeldWhenTheDeviceOpensCountAsHeld()
    {
        UmockdevDeviceState state;
        state.keysDown = {KEY_LEFTCTRL};
        openKeyboard("KEY_LEFTCTRL:KEY_F1:cmd", state);
        press(KEY_F1);
        QCOMPARE(matches, 1);
    }

    void keyAlreadyHeldWhenTheDeviceOpensIsNotJustPressed()
    {
        UmockdevDeviceState state;
        state.keysDown = {KEY_LEFTCTRL, KEY_F1};
        openKeyboard("KEY_LEFTCTRL:KEY_F1:cmd", state);
        press(KEY_LEFTALT);
        QCOMPARE(matches, 0);
    }

    void mouseButtonsTakePartInSequences()
    {
        node = testbed->addDevice(DeviceDescription::mouse());
        QVERIFY(!node.isEmpty());
        attach("BTN_RIGHT:BTN_LEFT:cmd");
        press(BTN_RIGHT);
        press(BTN_LEFT);
        QCOMPARE(matches, 1);
    }

private:
    void openKeyboard(const QString& line, const UmockdevDeviceState& state = {})
    {
        node = testbed->addDevice(DeviceDescription::keyboard(), state);
        QVERIFY(!node.isEmpty());
        attach(line);
    }

    void attach(const QString& line)
    {
        device.reset(new EventDevice(node));
        QVERIFY(device->getFd() != -1);
        sequence.reset(new KeySequence(line, nullptr));
        sequence->setAction(new CountingAction(&performed));
        connect(device.get(), &EventDevice::keymapChanged, this,
                [this](const EventDevice* changed) {
                    if (sequence->checkForValidSequence(changed)) {
                        ++matches;
                    }
                });
    }

    void deliver()
    {
        QVERIFY(testbed->waitForPendingInput(node));
        device->readDevice();
    }
    void press(int code)
    {
        QVERIFY(testbed->pressKey(node, code));
        deliver();
    }
    void release(int code)
    {
        QVERIFY(testbed->releaseKey(node, code));
        deliver();
    }
    void repeat(int code)
    {
        QVERIFY(testbed->repeatKey(node, code));
        deliver();
    }
    void releaseAll(std::initializer_list<int> codes)
    {
        for (int code : codes) {
            release(code);
        }
    }

    std::unique_ptr<UmockdevTestbed> testbed;
    std::unique_ptr<EventDevice> device;
    std::unique_ptr<KeySequence> sequence;
    QString node;
    int matches = 0;
    int performed = 0;
};

SELVANE_UMOCKDEV_TEST_MAIN(KeySequenceMatchingTest)
#include "test_keysequencematching.moc"
