#include "keys/KeyState.h"

#include <QtTest>

#include <linux/input-event-codes.h>

#include <array>

// The key state of one device on its own: the kernel's bit layout, the bounds of the codes
// it tracks, and which key counts as just pressed.
class KeyStateTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void kernelBitsAreBitCodeMod8OfByteCodeDiv8()
    {
        std::array<unsigned char, 96> bits{};
        // KEY_LEFTCTRL is 29: bit 5 of byte 3. BTN_LEFT is 0x110: bit 0 of byte 34.
        bits[3] = 1 << 5;
        bits[34] = 1;
        const KeyState state = KeyState::fromKernelBits(bits.data(), bits.size());
        QVERIFY(state.isPressed(KEY_LEFTCTRL));
        QVERIFY(state.isPressed(BTN_LEFT));
        QVERIFY(!state.isPressed(KEY_LEFTCTRL - 1));
        QVERIFY(!state.isPressed(KEY_LEFTCTRL + 1));
        QVERIFY(!state.isPressed(BTN_LEFT + 8));
        QVERIFY(state.isPressed());
    }

    void everyBitOfTheKernelsStateIsOneCode()
    {
        for (int key = 0; key <= KeyState::lastKeyCode; ++key) {
            std::array<unsigned char, 96> bits{};
            bits[key / 8] = static_cast<unsigned char>(1 << (key % 8));
            const KeyState state = KeyState::fromKernelBits(bits.data(), bits.size());
            for (int other : {key - 1, key, key + 1}) {
                QVERIFY2(state.isPressed(other) == (other == key),
                         qPrintable(QString("bit of %1, asked %2").arg(key).arg(other)));
            }
        }
    }

    void keysHeldAtOpenAreNotJustPressed()
    {
        std::array<unsigned char, 96> bits{};
        bits[KEY_A / 8] = 1 << (KEY_A % 8);
        const KeyState state = KeyState::fromKernelBits(bits.data(), bits.size());
        QVERIFY(state.isPressed(KEY_A));
        QVERIFY(!state.isPressedOnce(KEY_A));
    }

    void shortKernelStatesLeaveTheRestUp()
    {
        std::array<unsigned char, 96> bits;
        bits.fill(0xff);
        const KeyState state = KeyState::fromKernelBits(bits.data(), 2);
        QVERIFY(state.isPressed(15));
        QVERIFY(!state.isPressed(16));
        QVERIFY(!state.isPressed(KeyState::lastKeyCode));
    }

    void longerKernelStatesStopAtTheLastCode()
    {
        std::array<unsigned char, 128> bits;
        bits.fill(0xff);
        const KeyState state = KeyState::fromKernelBits(bits.data(), bits.size());
        QVERIFY(state.isPressed(KeyState::lastKeyCode));
        QVERIFY(!state.isPressed(KeyState::lastKeyCode + 1));
    }

    void code767IsTrackedButHeldAloneCountsAsNoKey()
    {
        QCOMPARE(KeyState::lastKeyCode, 767);
        KeyState state;
        state.apply(767, true);
        QVERIFY(state.isPressed(767));
        QVERIFY(state.isPressedOnce(767));
        QVERIFY(!state.isPressed());
        state.apply(766, true);
        QVERIFY(state.isPressed());
    }

    void codesOutsideTheStateAreNeverDown_data()
    {
        QTest::addColumn<int>("key");
        QTest::newRow("one past the last code") << 768;
        QTest::newRow("far beyond") << 0xffff;
        QTest::newRow("negative") << -1;
    }

    void codesOutsideTheStateAreNeverDown()
    {
        QFETCH(int, key);
        KeyState state;
        state.apply(key, true);
        QVERIFY(!state.isPressed(key));
        QVERIFY(!state.isPressedOnce(key));
        QVERIFY(!state.isPressed());
    }

    void onlyTheKeyJustPressedIsPressedOnce()
    {
        KeyState state;
        state.apply(KEY_A, true);
        QVERIFY(state.isPressedOnce(KEY_A));
        state.settle();
        QVERIFY(!state.isPressedOnce(KEY_A));
        QVERIFY(state.isPressed(KEY_A));

        state.apply(KEY_B, true);
        QVERIFY(state.isPressedOnce(KEY_B));
        QVERIFY(!state.isPressedOnce(KEY_A));
        QVERIFY(state.isPressed(KEY_A));
        state.settle();

        // A second press of a key that is down is no new press.
        state.apply(KEY_B, true);
        QVERIFY(!state.isPressedOnce(KEY_B));
        state.settle();
    }

    void aReleaseIsNoPress()
    {
        KeyState state;
        state.apply(KEY_A, true);
        state.settle();
        state.apply(KEY_A, false);
        QVERIFY(!state.isPressedOnce(KEY_A));
        QVERIFY(!state.isPressed(KEY_A));
        QVERIFY(!state.isPressed());
    }

    void aPressAndReleaseBeforeSettlingLeaveNothing()
    {
        KeyState state;
        state.apply(KEY_A, true);
        state.apply(KEY_A, false);
        QVERIFY(!state.isPressedOnce(KEY_A));
        QVERIFY(!state.isPressed());
    }
};

QTEST_GUILESS_MAIN(KeyStateTest)
#include "test_keystate.moc"
