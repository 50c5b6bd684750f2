#include "LogCapture.h"

#include "input/InputKeyCode.h"
#include "keys/KeyState.h"
#include "sequences/KeySequence.h"

#include <QtTest>

#include <linux/input-event-codes.h>

using Orvanta::Logger;

namespace {

QStringList keyNames(const QVector<const InputKeyCode*>& keys)
{
    QStringList names;
    for (const InputKeyCode* key : keys) {
        names.append(key->getName());
    }
    return names;
}

} // namespace

class KeySequenceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { InputKeyCode::buildTable(); }
    void cleanupTestCase() { InputKeyCode::cleanupTable(); }

    void parsesLine_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QStringList>("holdKeys");
        QTest::addColumn<QStringList>("pressKeys");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QStringList>("messages");

        QTest::newRow("one hold key and one press key is valid")
            << "KEY_LEFTCTRL:KEY_F1:cmd" << true << QStringList{"KEY_LEFTCTRL"}
            << QStringList{"KEY_F1"} << "cmd" << QStringList{};
        QTest::newRow("no hold keys is invalid and silent")
            << ":KEY_F1:cmd" << false << QStringList{} << QStringList{"KEY_F1"} << "cmd"
            << QStringList{};
        QTest::newRow("no press keys is invalid and silent")
            << "KEY_LEFTCTRL::cmd" << false << QStringList{"KEY_LEFTCTRL"} << QStringList{} << "cmd"
            << QStringList{};
        QTest::newRow("empty command is rejected")
            << "KEY_LEFTCTRL:KEY_F1:" << false << QStringList{} << QStringList{} << QString()
            << QStringList{"Could not parse line from configuration file: KEY_LEFTCTRL:KEY_F1:"};
        QTest::newRow("one colon is rejected")
            << "KEY_LEFTCTRL:KEY_F1" << false << QStringList{} << QStringList{} << QString()
            << QStringList{"Could not parse line from configuration file: KEY_LEFTCTRL:KEY_F1"};
        QTest::newRow("no colon is rejected")
            << "KEY_LEFTCTRL" << false << QStringList{} << QStringList{} << QString()
            << QStringList{"Could not parse line from configuration file: KEY_LEFTCTRL"};
        QTest::newRow("further colons belong to the command")
            << "KEY_LEFTCTRL:KEY_F1:a:b" << true << QStringList{"KEY_LEFTCTRL"}
            << QStringList{"KEY_F1"} << "a:b" << QStringList{};
        QTest::newRow("a trailing line break stays in the command")
            << "KEY_LEFTCTRL:KEY_F1:cmd\n"
            << true << QStringList{"KEY_LEFTCTRL"} << QStringList{"KEY_F1"} << "cmd\n"
            << QStringList{};
        QTest::newRow("the command is not trimmed")
            << "KEY_LEFTCTRL:KEY_F1: cmd " << true << QStringList{"KEY_LEFTCTRL"}
            << QStringList{"KEY_F1"} << " cmd " << QStringList{};
        QTest::newRow("a blank beside a comma makes an unknown hold key")
            << "KEY_LEFTCTRL, KEY_LEFTALT:KEY_F1:cmd" << false << QStringList{"KEY_LEFTCTRL"}
            << QStringList{} << QString()
            << QStringList{"Cannot find key for  KEY_LEFTALT.  Ignoring key.",
                           "Could not parse hold key values"};
        QTest::newRow("an unknown press key empties the hold keys")
            << "KEY_LEFTCTRL:KEY_F1,KEY_RFKILL:cmd" << false << QStringList{}
            << QStringList{"KEY_F1"} << QString()
            << QStringList{"Cannot find key for KEY_RFKILL.  Ignoring key.",
                           "Could not parse press key values"};
        QTest::newRow("lower-case names are unknown")
            << "key_leftctrl:KEY_F1:cmd" << false << QStringList{} << QStringList{} << QString()
            << QStringList{"Cannot find key for key_leftctrl.  Ignoring key.",
                           "Could not parse hold key values"};
        QTest::newRow("doubled and trailing commas are skipped")
            << "KEY_LEFTCTRL,,KEY_LEFTALT,:KEY_F1:cmd" << true
            << QStringList{"KEY_LEFTCTRL", "KEY_LEFTALT"} << QStringList{"KEY_F1"} << "cmd"
            << QStringList{};
        QTest::newRow("a repeated name in a field is kept twice")
            << "KEY_LEFTCTRL,KEY_LEFTCTRL:KEY_F1:cmd" << true
            << QStringList{"KEY_LEFTCTRL", "KEY_LEFTCTRL"} << QStringList{"KEY_F1"} << "cmd"
            << QStringList{};
        QTest::newRow("two press keys parse and are valid")
            << "KEY_LEFTSHIFT:KEY_A,KEY_B:cmd" << true << QStringList{"KEY_LEFTSHIFT"}
            << QStringList{"KEY_A", "KEY_B"} << "cmd" << QStringList{};
        QTest::newRow("mouse buttons are keys too")
            << "BTN_LEFT:BTN_RIGHT:cmd" << true << QStringList{"BTN_LEFT"}
            << QStringList{"BTN_RIGHT"} << "cmd" << QStringList{};
    }

    void parsesLine()
    {
        QFETCH(QString, line);
        QFETCH(bool, valid);
        QFETCH(QStringList, holdKeys);
        QFETCH(QStringList, pressKeys);
        QFETCH(QString, command);
        QFETCH(QStringList, messages);

        LogCapture capture;
        KeySequence sequence(line);
        const QStringList parserMessages = capture.messages();

        QCOMPARE(sequence.isValid(), valid);
        QCOMPARE(keyNames(sequence.getHoldKeys()), holdKeys);
        QCOMPARE(keyNames(sequence.getPressKeys()), pressKeys);
        QCOMPARE(sequence.getCommand(), command);
        QCOMPARE(parserMessages, messages);
        for (const LogCapture::Entry& entry : capture.entries()) {
            QCOMPARE(entry.file, QString("KeySequence"));
            QVERIFY2(entry.function == "parseKeys" || entry.function == "KeySequence",
                     qPrintable(entry.function));
        }
    }

    void messageLevels()
    {
        LogCapture capture;
        KeySequence rejected("KEY_LEFTCTRL:KEY_F1:");
        KeySequence unknown("KEY_NOPE:KEY_F1:cmd");
        const LogCapture::Entry* line =
            capture.find("Could not parse line from configuration file: KEY_LEFTCTRL:KEY_F1:");
        const LogCapture::Entry* key = capture.find("Cannot find key for KEY_NOPE.  Ignoring key.");
        const LogCapture::Entry* field = capture.find("Could not parse hold key values");
        QVERIFY(line && key && field);
        QCOMPARE(line->level, Logger::LEVEL_WARNING);
        QCOMPARE(line->function, QString("KeySequence"));
        QCOMPARE(key->level, Logger::LEVEL_WARNING);
        QCOMPARE(key->function, QString("parseKeys"));
        QCOMPARE(field->level, Logger::LEVEL_ERROR);
        QCOMPARE(field->function, QString("KeySequence"));
    }

    void parseKeysWithoutOkReportsBug()
    {
        LogCapture capture;
        QVERIFY(KeySequence::parseKeys("KEY_A", nullptr).isEmpty());
        const LogCapture::Entry* entry = capture.find("ok is NULL");
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_BUG);
    }

    void parseKeysOfEmptyFieldIsOk()
    {
        bool ok = false;
        QVERIFY(KeySequence::parseKeys(",,", &ok).isEmpty());
        QVERIFY(ok);
    }

    void addKeySkipsDuplicatesAndNull()
    {
        LogCapture capture;
        KeySequence sequence;
        const InputKeyCode* ctrl = InputKeyCode::keyCodeFindByName("KEY_LEFTCTRL");
        const InputKeyCode* f1 = InputKeyCode::keyCodeFindByName("KEY_F1");
        sequence.addHoldKey(ctrl);
        sequence.addHoldKey(ctrl);
        sequence.addHoldKey(nullptr);
        sequence.addPressKey(f1);
        sequence.addPressKey(f1);
        sequence.addPressKey(ctrl); // a key may be in both vectors
        sequence.addPressKey(nullptr);
        QCOMPARE(keyNames(sequence.getHoldKeys()), QStringList{"KEY_LEFTCTRL"});
        QCOMPARE(keyNames(sequence.getPressKeys()), (QStringList{"KEY_F1", "KEY_LEFTCTRL"}));
        QCOMPARE(capture.count("key is NULL"), 2);
        QCOMPARE(capture.entries().at(0).function, QString("addHoldKey"));
        QCOMPARE(capture.entries().at(1).function, QString("addPressKey"));
        QCOMPARE(capture.entries().at(0).level, Logger::LEVEL_BUG);
    }

    void validityNeedsHoldKeysPressKeysAndCommand()
    {
        QVERIFY(KeySequence("KEY_LEFTCTRL:KEY_F1:cmd").isValid());
        QVERIFY(!KeySequence(":KEY_F1:cmd").isValid()); // never valid without hold keys
        QVERIFY(!KeySequence("KEY_LEFTCTRL::cmd").isValid());
        KeySequence built;
        built.addHoldKey(InputKeyCode::keyCodeFindByName("KEY_LEFTCTRL"));
        built.addPressKey(InputKeyCode::keyCodeFindByName("KEY_F1"));
        QVERIFY(!built.isValid()); // no command
    }

    void checkMatchesOnThePressThatCompletesTheCombination()
    {
        const KeySequence sequence("KEY_LEFTCTRL:KEY_F1:cmd");
        KeyState keys;
        keys.apply(KEY_LEFTCTRL, true);
        QVERIFY(!sequence.checkForValidSequence(keys));
        keys.settle();
        keys.apply(KEY_F1, true);
        QVERIFY(sequence.checkForValidSequence(keys));
        keys.settle();
        // F1 held is no press any more.
        QVERIFY(!sequence.checkForValidSequence(keys));
    }

    void identityNamesKeysAndCommand()
    {
        const KeySequence line("KEY_LEFTCTRL:KEY_F1:cmd\n");
        QCOMPARE(KeySequence("KEY_LEFTCTRL:KEY_F1:cmd\n").identity(), line.identity());
        QVERIFY(KeySequence("KEY_LEFTCTRL:KEY_F1:cmd2\n").identity() != line.identity());
        QVERIFY(KeySequence("KEY_LEFTALT:KEY_F1:cmd\n").identity() != line.identity());
        QVERIFY(KeySequence("KEY_LEFTCTRL:KEY_F2:cmd\n").identity() != line.identity());
        QVERIFY(KeySequence("KEY_LEFTCTRL,KEY_LEFTCTRL:KEY_F1:cmd\n").identity() !=
                line.identity());
    }
};

QTEST_GUILESS_MAIN(KeySequenceTest)
#include "test_keysequence.moc"
