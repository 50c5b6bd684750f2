// The uinput fixture itself: the devices it makes must look to an evdev
// reader like the hardware the daemon's tests stand for.
#include "UinputTestMain.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// An evdev reader on the device's node, closed when it goes out of scope.
class NodeReader
{
public:
    explicit NodeReader(const QString& path)
        : fd(::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
    {
    }
    ~NodeReader()
    {
        if (fd != -1) {
            ::close(fd);
        }
    }
    NodeReader(const NodeReader&) = delete;
    NodeReader& operator=(const NodeReader&) = delete;

    int fd;
};

bool bitIsSet(const unsigned char* bits, int bit)
{
    return bits[bit / 8] & (1 << (bit % 8));
}

} // namespace

class UinputDeviceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void keyboardGetsAnEventNodeWithItsNameKeysAndLeds()
    {
        UinputDevice keyboard(DeviceDescription::keyboard("Fixture Keyboard"));
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        QVERIFY(keyboard.devicePath().startsWith("/dev/input/event"));

        NodeReader reader(keyboard.devicePath());
        QVERIFY(reader.fd != -1);
        char name[256] = {};
        QVERIFY(::ioctl(reader.fd, EVIOCGNAME(sizeof(name) - 1), name) >= 0);
        QCOMPARE(QString(name), QString("Fixture Keyboard"));

        unsigned char keys[KEY_MAX / 8 + 1] = {};
        QVERIFY(::ioctl(reader.fd, EVIOCGBIT(EV_KEY, sizeof(keys)), keys) >= 0);
        QVERIFY(bitIsSet(keys, KEY_A));
        QVERIFY(bitIsSet(keys, KEY_LEFTCTRL));
        QVERIFY(!bitIsSet(keys, BTN_LEFT));

        unsigned char leds[LED_MAX / 8 + 1] = {};
        QVERIFY(::ioctl(reader.fd, EVIOCGBIT(EV_LED, sizeof(leds)), leds) >= 0);
        QVERIFY(bitIsSet(leds, LED_NUML));
        QVERIFY(bitIsSet(leds, LED_CAPSL));
        QVERIFY(bitIsSet(leds, LED_SCROLLL));
        QVERIFY(!bitIsSet(leds, LED_COMPOSE));
    }

    void keyboardDoesNotRepeatHeldKeys()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        NodeReader reader(keyboard.devicePath());
        int repeat[2] = {-1, -1};
        QVERIFY(::ioctl(reader.fd, EVIOCGREP, repeat) >= 0);
        QCOMPARE(repeat[1], 0); // REP_PERIOD
    }

    void mouseWithoutKeysOrLedsOfAKeyboard()
    {
        UinputDevice mouse(DeviceDescription::mouse());
        QVERIFY2(mouse.isValid(), qPrintable(mouse.errorString()));

        NodeReader reader(mouse.devicePath());
        unsigned char keys[KEY_MAX / 8 + 1] = {};
        QVERIFY(::ioctl(reader.fd, EVIOCGBIT(EV_KEY, sizeof(keys)), keys) >= 0);
        QVERIFY(bitIsSet(keys, BTN_LEFT));
        QVERIFY(!bitIsSet(keys, KEY_A));
    }

    void typedKeysReachAReaderAndTheKeyState()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        NodeReader reader(keyboard.devicePath());
        QVERIFY(reader.fd != -1);

        QVERIFY(keyboard.press(KEY_A));
        input_event events[4];
        const ssize_t got = ::read(reader.fd, events, sizeof(events));
        QCOMPARE(got, static_cast<ssize_t>(2 * sizeof(input_event)));
        QCOMPARE(int(events[0].type), EV_KEY);
        QCOMPARE(int(events[0].code), KEY_A);
        QCOMPARE(events[0].value, 1);
        QCOMPARE(int(events[1].type), EV_SYN);

        unsigned char state[KEY_MAX / 8 + 1] = {};
        QVERIFY(::ioctl(reader.fd, EVIOCGKEY(sizeof(state)), state) >= 0);
        QVERIFY(bitIsSet(state, KEY_A));
        QVERIFY(keyboard.release(KEY_A));
        QVERIFY(::ioctl(reader.fd, EVIOCGKEY(sizeof(state)), state) >= 0);
        QVERIFY(!bitIsSet(state, KEY_A));
    }

    void ledWritesComeBackOnlyWhenDeclaredAndChanged()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        QVERIFY(keyboard.takeLedEvents().isEmpty());

        QVERIFY(keyboard.writeToNode(EV_LED, LED_NUML, 1));
        QCOMPARE(keyboard.takeLedEvents(), (QVector<UinputLedEvent>{{LED_NUML, 1}}));
        // Same value again: the input core drops it as no change.
        QVERIFY(keyboard.writeToNode(EV_LED, LED_NUML, 1));
        // An LED the device does not declare never reaches it.
        QVERIFY(keyboard.writeToNode(EV_LED, LED_COMPOSE, 1));
        QVERIFY(keyboard.takeLedEvents().isEmpty());
        QVERIFY(keyboard.writeToNode(EV_LED, LED_NUML, 0));
        QCOMPARE(keyboard.takeLedEvents(), (QVector<UinputLedEvent>{{LED_NUML, 0}}));
    }

    void unplugRemovesTheNodeAndOpenReadersGetEnodev()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        NodeReader reader(keyboard.devicePath());
        QVERIFY(reader.fd != -1);

        QVERIFY2(keyboard.unplug(), qPrintable(keyboard.errorString()));
        QVERIFY(!QFileInfo::exists(keyboard.devicePath()));
        input_event event;
        QCOMPARE(::read(reader.fd, &event, sizeof(event)), ssize_t(-1));
        QCOMPARE(errno, ENODEV);
        QVERIFY(!keyboard.press(KEY_A));
    }
};

SELVANE_UINPUT_TEST_MAIN(UinputDeviceTest)
#include "test_uinputdevice.moc"
