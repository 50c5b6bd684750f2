#include "keys/KeyEngine.h"

#include <QtTest>

#include <linux/input-event-codes.h>

#include <vector>

// What the case files cannot say in a few lines: the bound on a frame that never ends.
class KeyEngineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A device that never ends its frames has its records examined in shares of
    // maxFrameRecords, so neither its memory nor its commands wait for an end that never comes.
    void aFrameThatNeverEndsIsExaminedInShares()
    {
        KeyEngine engine;
        engine.setCommandCombinations({{{KEY_LEFTCTRL}, {KEY_F1}}});
        engine.addDevice(1, KeyState());
        std::vector<KeyRecord> records;
        while (records.size() + 4 < KeyEngine::maxFrameRecords) {
            records.push_back(KeyRecord::press(KEY_A));
            records.push_back(KeyRecord::release(KEY_A));
        }
        records.push_back(KeyRecord::press(KEY_LEFTCTRL));
        records.push_back(KeyRecord::press(KEY_F1));
        records.push_back(KeyRecord::release(KEY_F1));
        records.push_back(KeyRecord::release(KEY_LEFTCTRL));
        QCOMPARE(records.size(), KeyEngine::maxFrameRecords);

        const std::vector<KeyEngine::Decision> decisions = engine.feed(1, records);
        const std::vector<KeyEngine::Decision> expected{
            {KeyEngine::Decision::Kind::RUN_COMMAND, 1, 0}};
        QVERIFY(decisions == expected);
        QVERIFY(!engine.keyState(1)->isPressed());
    }

    // One record short of the bound, nothing is examined before the frame's end.
    void aFrameUnderTheBoundWaitsForItsEnd()
    {
        KeyEngine engine;
        engine.setCommandCombinations({{{KEY_LEFTCTRL}, {KEY_F1}}});
        engine.addDevice(1, KeyState());
        const std::vector<KeyRecord> records{KeyRecord::press(KEY_LEFTCTRL),
                                             KeyRecord::press(KEY_F1)};
        QVERIFY(engine.feed(1, records).empty());
        QVERIFY(!engine.keyState(1)->isPressed());
        QVERIFY(engine.feed(1, {KeyRecord::frameEnd()}).empty());
        QVERIFY(engine.keyState(1)->isPressed(KEY_F1));
        QCOMPARE(engine.waitingCommands(1), std::vector<std::size_t>{0});
    }
};

QTEST_GUILESS_MAIN(KeyEngineTest)
#include "test_keyengine.moc"
