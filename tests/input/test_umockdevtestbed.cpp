#include "UmockdevTestbed.h"

#include <QProcess>
#include <QtTest>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// A descriptor opened the way the daemon opens devices, closed at scope end.
class OpenedNode
{
public:
    explicit OpenedNode(const QString& node)
        : fd(open(QFile::encodeName(node).constData(), O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
    }
    ~OpenedNode()
    {
        if (fd != -1) {
            close(fd);
        }
    }
    OpenedNode(const OpenedNode&) = delete;
    OpenedNode& operator=(const OpenedNode&) = delete;

    const int fd;
};

bool bitSet(const unsigned char* bits, int index)
{
    return (bits[index / 8] >> (index % 8)) & 1;
}

} // namespace

// The fixture itself: what the emulated nodes answer and carry, in both directions.
class UmockdevTestbedTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void runsWithThePreloadLibrary() { QVERIFY(UmockdevTestbed::isPreloaded()); }

    void nodesAreNumberedFromEventZero()
    {
        UmockdevTestbed testbed;
        QCOMPARE(testbed.addDevice(DeviceDescription::keyboard()),
                 QStringLiteral("/dev/input/event0"));
        QCOMPARE(testbed.addDevice(DeviceDescription::mouse()),
                 QStringLiteral("/dev/input/event1"));
        QCOMPARE(qgetenv("UMOCKDEV_DIR"), QFile::encodeName(testbed.rootDir()));
    }

    void probingIoctlsAnswerTheDeclaredDevice()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_A, KEY_LEFTSHIFT};
        state.ledsOn = {LED_NUML};
        const QString node = testbed.addDevice(DeviceDescription::keyboard("Desk Keyboard"), state);
        OpenedNode opened(node);
        QVERIFY(opened.fd != -1);

        char name[UmockdevTestbed::nameLength] = {};
        QVERIFY(ioctl(opened.fd, EVIOCGNAME(sizeof name), name) >= 0);
        QCOMPARE(QString::fromUtf8(name), QStringLiteral("Desk Keyboard"));

        unsigned char types[UmockdevTestbed::eventTypeBytes] = {};
        QVERIFY(ioctl(opened.fd, EVIOCGBIT(0, sizeof types), types) >= 0);
        QVERIFY(bitSet(types, EV_KEY));
        QVERIFY(bitSet(types, EV_LED));
        QVERIFY(!bitSet(types, EV_REL));

        unsigned char keys[UmockdevTestbed::keyBytes] = {};
        QVERIFY(ioctl(opened.fd, EVIOCGKEY(sizeof keys), keys) >= 0);
        QVERIFY(bitSet(keys, KEY_A));
        QVERIFY(bitSet(keys, KEY_LEFTSHIFT));
        QVERIFY(!bitSet(keys, KEY_B));

        unsigned char leds[UmockdevTestbed::ledBytes] = {};
        QVERIFY(ioctl(opened.fd, EVIOCGLED(sizeof leds), leds) >= 0);
        QCOMPARE(int(leds[0]), 1 << LED_NUML);
    }

    void eventTypesCanFail()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.eventTypesFail = true;
        OpenedNode opened(testbed.addDevice(DeviceDescription::keyboard(), state));
        unsigned char types[UmockdevTestbed::eventTypeBytes] = {};
        QCOMPARE(ioctl(opened.fd, EVIOCGBIT(0, sizeof types), types), -1);
    }

    void writtenEventsReachTheOpenedNode()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        OpenedNode opened(node);
        QVERIFY(testbed.pressKey(node, KEY_Q));
        QVERIFY(testbed.waitForPendingInput(node));

        input_event events[4] = {};
        QCOMPARE(read(opened.fd, events, sizeof events), ssize_t(2 * sizeof(input_event)));
        QCOMPARE(int(events[0].type), EV_KEY);
        QCOMPARE(int(events[0].code), KEY_Q);
        QCOMPARE(events[0].value, 1);
        QCOMPARE(int(events[1].type), EV_SYN);
        QCOMPARE(int(events[1].code), SYN_REPORT);
    }

    void rawByteCountsArriveUnchanged()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        OpenedNode opened(node);
        // Bytes a terminal would translate (newline, carriage return) pass untouched.
        const QByteArray bytes("\n\r\x03\x11\x13\x7f\n\n", 8);
        QVERIFY(testbed.writeBytes(node, bytes));
        QVERIFY(testbed.waitForPendingInput(node, bytes.size()));
        char buffer[64] = {};
        QCOMPARE(read(opened.fd, buffer, sizeof buffer), ssize_t(bytes.size()));
        QCOMPARE(QByteArray(buffer, bytes.size()), bytes);
    }

    void recordsWrittenByTheCodeUnderTestAreReadBackInOrder()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        OpenedNode opened(node);
        const QByteArray written = UmockdevTestbed::eventRecord(EV_LED, LED_CAPSL, 1) +
                                   UmockdevTestbed::eventRecord(EV_LED, LED_NUML, 0);
        QCOMPARE(write(opened.fd, written.constData(), written.size()), ssize_t(written.size()));
        QVERIFY(testbed.injectDeviceSideEvent(node, EV_MSC, MSC_SCAN, 7));

        const QVector<input_event> events = testbed.readEvents(node, 3);
        QCOMPARE(events.size(), 3);
        QCOMPARE(int(events[0].code), LED_CAPSL);
        QCOMPARE(events[0].value, 1);
        QCOMPARE(int(events[1].code), LED_NUML);
        QCOMPARE(events[1].value, 0);
        QCOMPARE(int(events[2].type), EV_MSC);
        QCOMPARE(events[2].value, 7);
    }

    void readEventsGivesUpAtTheDeadline()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        QVERIFY(testbed.injectDeviceSideEvent(node, EV_LED, LED_NUML, 1));
        QCOMPARE(testbed.readEvents(node, 2, 200).size(), 1);
    }

    void removedNodesCannotBeOpened()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        testbed.removeDevice(node);
        OpenedNode opened(node);
        QCOMPARE(opened.fd, -1);
    }

    void anotherProcessSeesTheNodesThroughTheClientEnvironment()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        const QProcessEnvironment environment = testbed.clientEnvironment();
        QCOMPARE(environment.value(QStringLiteral("UMOCKDEV_DIR")), testbed.rootDir());
        QVERIFY(environment.value(QStringLiteral("LD_PRELOAD"))
                    .contains(UmockdevTestbed::preloadLibrary()));

        QProcess client;
        client.setProcessEnvironment(environment);
        client.start(
            QStringLiteral("/bin/sh"),
            {QStringLiteral("-c"),
             QStringLiteral("head -c %1 /dev/zero > %2").arg(sizeof(input_event)).arg(node)});
        QVERIFY(client.waitForFinished(10000));
        QCOMPARE(client.exitCode(), 0);
        const QVector<input_event> events = testbed.readEvents(node, 1);
        QCOMPARE(events.size(), 1);
        QCOMPARE(int(events[0].type), EV_SYN);
    }
};

SELVANE_UMOCKDEV_TEST_MAIN(UmockdevTestbedTest)
#include "test_umockdevtestbed.moc"
