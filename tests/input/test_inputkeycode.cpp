#include "LogCapture.h"
#include "input/InputKeyCode.h"

#include <QSet>
#include <QtTest>

#include <linux/input-event-codes.h>

#include <climits>
#include <cstring>
#include <iterator>

namespace {

struct KernelKey
{
    const char* name;
    int code;
};

// The expected table, written independently of the one under test: each name is turned into
// its string and its value by the preprocessor, so a name and its code cannot disagree.
#define KERNEL_KEY(name)                                                                           \
    {                                                                                              \
#name, name                                                                                \
    }
const KernelKey expectedTable[] = {
    KERNEL_KEY(BTN_EXTRA),
    KERNEL_KEY(BTN_LEFT),
    KERNEL_KEY(BTN_MIDDLE),
    KERNEL_KEY(BTN_RIGHT),
    KERNEL_KEY(BTN_SIDE),
    KERNEL_KEY(KEY_0),
    KERNEL_KEY(KEY_1),
    KERNEL_KEY(KEY_102ND),
    KERNEL_KEY(KEY_2),
    KERNEL_KEY(KEY_3),
    KERNEL_KEY(KEY_4),
    KERNEL_KEY(KEY_5),
    KERNEL_KEY(KEY_6),
    KERNEL_KEY(KEY_7),
    KERNEL_KEY(KEY_8),
    KERNEL_KEY(KEY_9),
    KERNEL_KEY(KEY_A),
    KERNEL_KEY(KEY_AGAIN),
    KERNEL_KEY(KEY_ALTERASE),
    KERNEL_KEY(KEY_APOSTROPHE),
    KERNEL_KEY(KEY_B),
    KERNEL_KEY(KEY_BACK),
    KERNEL_KEY(KEY_BACKSLASH),
    KERNEL_KEY(KEY_BACKSPACE),
    KERNEL_KEY(KEY_BASSBOOST),
    KERNEL_KEY(KEY_BATTERY),
    KERNEL_KEY(KEY_BLUETOOTH),
    KERNEL_KEY(KEY_BOOKMARKS),
    KERNEL_KEY(KEY_BRIGHTNESSDOWN),
    KERNEL_KEY(KEY_BRIGHTNESSUP),
    KERNEL_KEY(KEY_BRIGHTNESS_CYCLE),
    KERNEL_KEY(KEY_BRIGHTNESS_ZERO),
    KERNEL_KEY(KEY_C),
    KERNEL_KEY(KEY_CALC),
    KERNEL_KEY(KEY_CAMERA),
    KERNEL_KEY(KEY_CANCEL),
    KERNEL_KEY(KEY_CAPSLOCK),
    KERNEL_KEY(KEY_CHAT),
    KERNEL_KEY(KEY_CLOSE),
    KERNEL_KEY(KEY_CLOSECD),
    KERNEL_KEY(KEY_COFFEE),
    KERNEL_KEY(KEY_COMMA),
    KERNEL_KEY(KEY_COMPOSE),
    KERNEL_KEY(KEY_COMPUTER),
    KERNEL_KEY(KEY_CONFIG),
    KERNEL_KEY(KEY_CONNECT),
    KERNEL_KEY(KEY_COPY),
    KERNEL_KEY(KEY_CUT),
    KERNEL_KEY(KEY_CYCLEWINDOWS),
    KERNEL_KEY(KEY_D),
    KERNEL_KEY(KEY_DELETE),
    KERNEL_KEY(KEY_DELETEFILE),
    KERNEL_KEY(KEY_DIRECTION),
    KERNEL_KEY(KEY_DISPLAY_OFF),
    KERNEL_KEY(KEY_DOCUMENTS),
    KERNEL_KEY(KEY_DOT),
    KERNEL_KEY(KEY_DOWN),
    KERNEL_KEY(KEY_E),
    KERNEL_KEY(KEY_EDIT),
    KERNEL_KEY(KEY_EJECTCD),
    KERNEL_KEY(KEY_EJECTCLOSECD),
    KERNEL_KEY(KEY_EMAIL),
    KERNEL_KEY(KEY_END),
    KERNEL_KEY(KEY_ENTER),
    KERNEL_KEY(KEY_EQUAL),
    KERNEL_KEY(KEY_ESC),
    KERNEL_KEY(KEY_EXIT),
    KERNEL_KEY(KEY_F),
    KERNEL_KEY(KEY_F1),
    KERNEL_KEY(KEY_F10),
    KERNEL_KEY(KEY_F11),
    KERNEL_KEY(KEY_F12),
    KERNEL_KEY(KEY_F13),
    KERNEL_KEY(KEY_F14),
    KERNEL_KEY(KEY_F15),
    KERNEL_KEY(KEY_F16),
    KERNEL_KEY(KEY_F17),
    KERNEL_KEY(KEY_F18),
    KERNEL_KEY(KEY_F19),
    KERNEL_KEY(KEY_F2),
    KERNEL_KEY(KEY_F20),
    KERNEL_KEY(KEY_F21),
    KERNEL_KEY(KEY_F22),
    KERNEL_KEY(KEY_F23),
    KERNEL_KEY(KEY_F24),
    KERNEL_KEY(KEY_F3),
    KERNEL_KEY(KEY_F4),
    KERNEL_KEY(KEY_F5),
    KERNEL_KEY(KEY_F6),
    KERNEL_KEY(KEY_F7),
    KERNEL_KEY(KEY_F8),
    KERNEL_KEY(KEY_F9),
    KERNEL_KEY(KEY_FASTFORWARD),
    KERNEL_KEY(KEY_FILE),
    KERNEL_KEY(KEY_FINANCE),
    KERNEL_KEY(KEY_FIND),
    KERNEL_KEY(KEY_FORWARD),
    KERNEL_KEY(KEY_FORWARDMAIL),
    KERNEL_KEY(KEY_FRONT),
    KERNEL_KEY(KEY_G),
    KERNEL_KEY(KEY_GRAVE),
    KERNEL_KEY(KEY_H),
    KERNEL_KEY(KEY_HANGEUL),
    KERNEL_KEY(KEY_HANJA),
    KERNEL_KEY(KEY_HELP),
    KERNEL_KEY(KEY_HENKAN),
    KERNEL_KEY(KEY_HIRAGANA),
    KERNEL_KEY(KEY_HOME),
    KERNEL_KEY(KEY_HOMEPAGE),
    KERNEL_KEY(KEY_HP),
    KERNEL_KEY(KEY_I),
    KERNEL_KEY(KEY_INSERT),
    KERNEL_KEY(KEY_ISO),
    KERNEL_KEY(KEY_J),
    KERNEL_KEY(KEY_K),
    KERNEL_KEY(KEY_KATAKANA),
    KERNEL_KEY(KEY_KATAKANAHIRAGANA),
    KERNEL_KEY(KEY_KBDILLUMDOWN),
    KERNEL_KEY(KEY_KBDILLUMTOGGLE),
    KERNEL_KEY(KEY_KBDILLUMUP),
    KERNEL_KEY(KEY_KP0),
    KERNEL_KEY(KEY_KP1),
    KERNEL_KEY(KEY_KP2),
    KERNEL_KEY(KEY_KP3),
    KERNEL_KEY(KEY_KP4),
    KERNEL_KEY(KEY_KP5),
    KERNEL_KEY(KEY_KP6),
    KERNEL_KEY(KEY_KP7),
    KERNEL_KEY(KEY_KP8),
    KERNEL_KEY(KEY_KP9),
    KERNEL_KEY(KEY_KPASTERISK),
    KERNEL_KEY(KEY_KPCOMMA),
    KERNEL_KEY(KEY_KPDOT),
    KERNEL_KEY(KEY_KPENTER),
    KERNEL_KEY(KEY_KPEQUAL),
    KERNEL_KEY(KEY_KPJPCOMMA),
    KERNEL_KEY(KEY_KPLEFTPAREN),
    KERNEL_KEY(KEY_KPMINUS),
    KERNEL_KEY(KEY_KPPLUS),
    KERNEL_KEY(KEY_KPPLUSMINUS),
    KERNEL_KEY(KEY_KPRIGHTPAREN),
    KERNEL_KEY(KEY_KPSLASH),
    KERNEL_KEY(KEY_L),
    KERNEL_KEY(KEY_LEFT),
    KERNEL_KEY(KEY_LEFTALT),
    KERNEL_KEY(KEY_LEFTBRACE),
    KERNEL_KEY(KEY_LEFTCTRL),
    KERNEL_KEY(KEY_LEFTMETA),
    KERNEL_KEY(KEY_LEFTSHIFT),
    KERNEL_KEY(KEY_LINEFEED),
    KERNEL_KEY(KEY_M),
    KERNEL_KEY(KEY_MACRO),
    KERNEL_KEY(KEY_MAIL),
    KERNEL_KEY(KEY_MEDIA),
    KERNEL_KEY(KEY_MENU),
    KERNEL_KEY(KEY_MINUS),
    KERNEL_KEY(KEY_MOVE),
    KERNEL_KEY(KEY_MSDOS),
    KERNEL_KEY(KEY_MUHENKAN),
    KERNEL_KEY(KEY_MUTE),
    KERNEL_KEY(KEY_N),
    KERNEL_KEY(KEY_NEW),
    KERNEL_KEY(KEY_NEXTSONG),
    KERNEL_KEY(KEY_NUMLOCK),
    KERNEL_KEY(KEY_O),
    KERNEL_KEY(KEY_OPEN),
    KERNEL_KEY(KEY_P),
    KERNEL_KEY(KEY_PAGEDOWN),
    KERNEL_KEY(KEY_PAGEUP),
    KERNEL_KEY(KEY_PASTE),
    KERNEL_KEY(KEY_PAUSE),
    KERNEL_KEY(KEY_PAUSECD),
    KERNEL_KEY(KEY_PHONE),
    KERNEL_KEY(KEY_PLAY),
    KERNEL_KEY(KEY_PLAYCD),
    KERNEL_KEY(KEY_PLAYPAUSE),
    KERNEL_KEY(KEY_POWER),
    KERNEL_KEY(KEY_PREVIOUSSONG),
    KERNEL_KEY(KEY_PRINT),
    KERNEL_KEY(KEY_PROG1),
    KERNEL_KEY(KEY_PROG2),
    KERNEL_KEY(KEY_PROG3),
    KERNEL_KEY(KEY_PROG4),
    KERNEL_KEY(KEY_PROPS),
    KERNEL_KEY(KEY_Q),
    KERNEL_KEY(KEY_QUESTION),
    KERNEL_KEY(KEY_R),
    KERNEL_KEY(KEY_RECORD),
    KERNEL_KEY(KEY_REDO),
    KERNEL_KEY(KEY_REFRESH),
    KERNEL_KEY(KEY_REPLY),
    KERNEL_KEY(KEY_RESERVED),
    KERNEL_KEY(KEY_REWIND),
    KERNEL_KEY(KEY_RIGHT),
    KERNEL_KEY(KEY_RIGHTALT),
    KERNEL_KEY(KEY_RIGHTBRACE),
    KERNEL_KEY(KEY_RIGHTCTRL),
    KERNEL_KEY(KEY_RIGHTMETA),
    KERNEL_KEY(KEY_RIGHTSHIFT),
    KERNEL_KEY(KEY_RO),
    KERNEL_KEY(KEY_S),
    KERNEL_KEY(KEY_SAVE),
    KERNEL_KEY(KEY_SCROLLDOWN),
    KERNEL_KEY(KEY_SCROLLLOCK),
    KERNEL_KEY(KEY_SCROLLUP),
    KERNEL_KEY(KEY_SEARCH),
    KERNEL_KEY(KEY_SEMICOLON),
    KERNEL_KEY(KEY_SEND),
    KERNEL_KEY(KEY_SENDFILE),
    KERNEL_KEY(KEY_SETUP),
    KERNEL_KEY(KEY_SHOP),
    KERNEL_KEY(KEY_SLASH),
    KERNEL_KEY(KEY_SLEEP),
    KERNEL_KEY(KEY_SOUND),
    KERNEL_KEY(KEY_SPACE),
    KERNEL_KEY(KEY_SPORT),
    KERNEL_KEY(KEY_STOP),
    KERNEL_KEY(KEY_STOPCD),
    KERNEL_KEY(KEY_SUSPEND),
    KERNEL_KEY(KEY_SWITCHVIDEOMODE),
    KERNEL_KEY(KEY_SYSRQ),
    KERNEL_KEY(KEY_T),
    KERNEL_KEY(KEY_TAB),
    KERNEL_KEY(KEY_U),
    KERNEL_KEY(KEY_UNDO),
    KERNEL_KEY(KEY_UNKNOWN),
    KERNEL_KEY(KEY_UP),
    KERNEL_KEY(KEY_UWB),
    KERNEL_KEY(KEY_V),
    KERNEL_KEY(KEY_VIDEO_NEXT),
    KERNEL_KEY(KEY_VIDEO_PREV),
    KERNEL_KEY(KEY_VOLUMEDOWN),
    KERNEL_KEY(KEY_VOLUMEUP),
    KERNEL_KEY(KEY_W),
    KERNEL_KEY(KEY_WAKEUP),
    KERNEL_KEY(KEY_WIMAX),
    KERNEL_KEY(KEY_WLAN),
    KERNEL_KEY(KEY_WWW),
    KERNEL_KEY(KEY_X),
    KERNEL_KEY(KEY_XFER),
    KERNEL_KEY(KEY_Y),
    KERNEL_KEY(KEY_YEN),
    KERNEL_KEY(KEY_Z),
    KERNEL_KEY(KEY_ZENKAKUHANKAKU),
};
#undef KERNEL_KEY

} // namespace

class InputKeyCodeTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { InputKeyCode::buildTable(); }
    void cleanup() { InputKeyCode::cleanupTable(); }

    void tableHoldsTheKernelNamesAndCodesInOrder()
    {
        const QVector<const InputKeyCode*>& table = InputKeyCode::keyCodes;
        QCOMPARE(table.size(), 244);
        QCOMPARE(int(std::size(expectedTable)), 244);
        for (int i = 0; i < table.size(); ++i) {
            QCOMPARE(table[i]->getName(), QString::fromLatin1(expectedTable[i].name));
            QCOMPARE(table[i]->getCode(), expectedTable[i].code);
        }
    }

    void namesAscendBytewiseWithoutDuplicates()
    {
        const QVector<const InputKeyCode*>& table = InputKeyCode::keyCodes;
        QCOMPARE(table.first()->getName(), QStringLiteral("BTN_EXTRA"));
        QCOMPARE(table.last()->getName(), QStringLiteral("KEY_ZENKAKUHANKAKU"));
        for (int i = 1; i < table.size(); ++i) {
            const QByteArray previous = table[i - 1]->getName().toLatin1();
            const QByteArray current = table[i]->getName().toLatin1();
            QVERIFY2(std::strcmp(previous.constData(), current.constData()) < 0,
                     previous + " before " + current);
        }
        const int brightnessUp = InputKeyCode::keyCodes.indexOf(
            InputKeyCode::keyCodeFindByName(QStringLiteral("KEY_BRIGHTNESSUP")));
        const int brightnessCycle = InputKeyCode::keyCodes.indexOf(
            InputKeyCode::keyCodeFindByName(QStringLiteral("KEY_BRIGHTNESS_CYCLE")));
        QVERIFY(brightnessUp < brightnessCycle);
    }

    void noCodeOccursTwice()
    {
        QSet<int> codes;
        int lowest = INT_MAX;
        int highest = INT_MIN;
        for (const InputKeyCode* entry : std::as_const(InputKeyCode::keyCodes)) {
            QVERIFY2(!codes.contains(entry->getCode()), qPrintable(entry->getName()));
            codes.insert(entry->getCode());
            lowest = std::min(lowest, entry->getCode());
            highest = std::max(highest, entry->getCode());
        }
        QCOMPARE(lowest, 0);
        QCOMPARE(highest, 276);
    }

    void documentedCodes_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("code");
        QTest::newRow("reserved key is zero") << "KEY_RESERVED" << 0;
        QTest::newRow("escape") << "KEY_ESC" << 1;
        QTest::newRow("letter A") << "KEY_A" << 30;
        QTest::newRow("function key 1") << "KEY_F1" << 59;
        QTest::newRow("unknown key") << "KEY_UNKNOWN" << 240;
        QTest::newRow("wimax") << "KEY_WIMAX" << 246;
        QTest::newRow("left mouse button") << "BTN_LEFT" << 272;
        QTest::newRow("extra mouse button") << "BTN_EXTRA" << 276;
    }

    void documentedCodes()
    {
        QFETCH(QString, name);
        QFETCH(int, code);
        const InputKeyCode* entry = InputKeyCode::keyCodeFindByName(name);
        QVERIFY(entry);
        QCOMPARE(entry->getName(), name);
        QCOMPARE(entry->getCode(), code);
    }

    void namesOutsideTheTableAreNotFound_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("lower case") << "key_a";
        QTest::newRow("leading blank") << " KEY_A";
        QTest::newRow("trailing blank") << "KEY_A ";
        QTest::newRow("letter without prefix") << "A";
        QTest::newRow("prefix only") << "KEY_";
        QTest::newRow("empty") << "";
        QTest::newRow("alias of KEY_HANGEUL") << "KEY_HANGUEL";
        QTest::newRow("alias of KEY_COFFEE") << "KEY_SCREENLOCK";
        QTest::newRow("newer than KEY_WIMAX") << "KEY_RFKILL";
        QTest::newRow("microphone mute") << "KEY_MICMUTE";
        QTest::newRow("scale") << "KEY_SCALE";
        QTest::newRow("dashboard") << "KEY_DASHBOARD";
        QTest::newRow("automatic brightness") << "KEY_BRIGHTNESS_AUTO";
        QTest::newRow("wwan") << "KEY_WWAN";
        QTest::newRow("forward button") << "BTN_FORWARD";
        QTest::newRow("back button") << "BTN_BACK";
        QTest::newRow("task button") << "BTN_TASK";
        QTest::newRow("joystick trigger") << "BTN_TRIGGER";
    }

    void namesOutsideTheTableAreNotFound()
    {
        QFETCH(QString, name);
        QCOMPARE(InputKeyCode::keyCodeFindByName(name), nullptr);
    }

    void buildingTheTableLogsNothing()
    {
        InputKeyCode::cleanupTable();
        LogCapture capture;
        InputKeyCode::buildTable();
        QCOMPARE(capture.entries().size(), 0);
    }

    void codeAboveTheBoundIsReportedAndKept()
    {
        LogCapture capture;
        const InputKeyCode entry(QStringLiteral("KEY_MAX"), 767);
        QCOMPARE(entry.getCode(), 767);
        QCOMPARE(entry.getName(), QStringLiteral("KEY_MAX"));
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& line = capture.entries().first();
        QCOMPARE(line.message, QStringLiteral("code is invalid: 767"));
        QCOMPARE(line.level, Orvanta::Logger::LEVEL_BUG);
        QCOMPARE(line.file, QStringLiteral("InputKeyCode"));
        QCOMPARE(line.function, QStringLiteral("InputKeyCode"));
    }

    void codeAtTheBoundIsAcceptedSilently()
    {
        LogCapture capture;
        const InputKeyCode entry(QStringLiteral("KEY_LAST"), 766);
        QCOMPARE(entry.getCode(), 766);
        QCOMPARE(capture.entries().size(), 0);
    }

    void afterCleanupEveryLookupFails()
    {
        QVERIFY(InputKeyCode::keyCodeFindByName(QStringLiteral("KEY_A")));
        InputKeyCode::cleanupTable();
        QVERIFY(InputKeyCode::keyCodes.isEmpty());
        for (const KernelKey& key : expectedTable) {
            QCOMPARE(InputKeyCode::keyCodeFindByName(QString::fromLatin1(key.name)), nullptr);
        }
    }
};

QTEST_GUILESS_MAIN(InputKeyCodeTest)
#include "test_inputkeycode.moc"
