#include "LogCapture.h"
#include "UmockdevTestbed.h"
#include "input/EventDevice.h"

#include <QPointer>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <poll.h>

using Orvanta::Logger;

namespace {

// What a listener sees of the watched keys while keymapChanged() is being emitted.
struct Emission
{
    const EventDevice* device;
    QSet<int> pressedOnce;
    QSet<int> pressed;
};

class EmissionRecorder
{
public:
    EmissionRecorder(EventDevice& device, QVector<int> watchedKeys)
    {
        connection = QObject::connect(&device, &EventDevice::keymapChanged,
                                      [this, watchedKeys](const EventDevice* sender) {
                                          Emission emission{sender, {}, {}};
                                          for (int key : watchedKeys) {
                                              if (sender->isKeyPressedOnce(key)) {
                                                  emission.pressedOnce.insert(key);
                                              }
                                              if (sender->isKeyPressed(key)) {
                                                  emission.pressed.insert(key);
                                              }
                                          }
                                          emissions.append(emission);
                                      });
    }
    ~EmissionRecorder() { QObject::disconnect(connection); }
    EmissionRecorder(const EmissionRecorder&) = delete;
    EmissionRecorder& operator=(const EmissionRecorder&) = delete;

    QVector<Emission> emissions;

private:
    QMetaObject::Connection connection;
};

QSet<int> keys(std::initializer_list<int> codes)
{
    return QSet<int>(codes);
}

} // namespace

class EventDeviceTest : public QObject
{
    Q_OBJECT

private:
    // Lets the device read once everything written to its node has arrived.
    static void deliver(UmockdevTestbed& testbed, const QString& node, EventDevice& device)
    {
        QVERIFY(testbed.waitForPendingInput(node));
        device.readDevice();
    }

    static void verifyLine(const LogCapture& capture, const QString& message, Logger::Level level,
                           const QString& function)
    {
        const LogCapture::Entry* line = capture.find(message);
        QVERIFY2(line, qPrintable("missing log line: " + message +
                                  "\nlogged: " + capture.messages().join(QLatin1Char('\n'))));
        QCOMPARE(line->level, level);
        QCOMPARE(line->file, QStringLiteral("EventDevice"));
        QCOMPARE(line->function, function);
    }

private Q_SLOTS:
    void openingAKeyboardLogsItsName()
    {
        UmockdevTestbed testbed;
        const QString node =
            testbed.addDevice(DeviceDescription::keyboard(QStringLiteral("Desk Board")));
        LogCapture capture;
        EventDevice device(node);
        QVERIFY(device.getFd() != -1);
        QCOMPARE(device.getDeviceFileName(), node);
        verifyLine(capture, "Opened " + node + " for reading ", Logger::LEVEL_INFO,
                   QStringLiteral("EventDevice"));
        verifyLine(capture, "Name of device at " + node + " is Desk Board.", Logger::LEVEL_INFO,
                   QStringLiteral("EventDevice"));
        QCOMPARE(capture.entries().size(), 2);
        QVERIFY(device.getDeviceVariables().isEmpty());
        QVERIFY(!device.isKeyPressed());
    }

    void destroyingAnOpenDeviceLogsTheClose()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        auto* device = new EventDevice(node);
        LogCapture capture;
        delete device;
        verifyLine(capture, "Closed device " + node, Logger::LEVEL_INFO,
                   QStringLiteral("~EventDevice"));
    }

    void keyHeldAtOpenIsDownButNotPressedOnce()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_A};
        EventDevice device(testbed.addDevice(DeviceDescription::keyboard(), state));
        QVERIFY(device.isKeyPressed(KEY_A));
        QVERIFY(!device.isKeyPressedOnce(KEY_A));
        QVERIFY(device.isKeyPressed());
        QVERIFY(!device.isKeyPressed(KEY_B));
    }

    void pressingAThenBEmitsTwice()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        EmissionRecorder recorder(device, {KEY_A, KEY_B});
        QVERIFY(testbed.pressKey(node, KEY_A));
        QVERIFY(testbed.pressKey(node, KEY_B));
        deliver(testbed, node, device);

        QCOMPARE(recorder.emissions.size(), 2);
        QCOMPARE(recorder.emissions[0].device, &device);
        QCOMPARE(recorder.emissions[0].pressedOnce, keys({KEY_A}));
        QCOMPARE(recorder.emissions[1].device, &device);
        QCOMPARE(recorder.emissions[1].pressedOnce, keys({KEY_B}));
        QCOMPARE(recorder.emissions[1].pressed, keys({KEY_A, KEY_B}));
        // After the emission both states agree again.
        QVERIFY(!device.isKeyPressedOnce(KEY_B));
        QVERIFY(device.isKeyPressed(KEY_B));
    }

    void autoRepeatEmitsNothing()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        EmissionRecorder recorder(device, {KEY_A, KEY_B});
        QVERIFY(testbed.pressKey(node, KEY_A));
        for (int i = 0; i < 3; ++i) {
            QVERIFY(testbed.repeatKey(node, KEY_A));
        }
        QVERIFY(testbed.pressKey(node, KEY_B));
        deliver(testbed, node, device);

        QCOMPARE(recorder.emissions.size(), 2);
        QCOMPARE(recorder.emissions[0].pressedOnce, keys({KEY_A}));
        QCOMPARE(recorder.emissions[1].pressedOnce, keys({KEY_B}));
        QVERIFY(device.isKeyPressed(KEY_A));
    }

    void releaseEmitsWithoutPressedOnce()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        QVERIFY(testbed.pressKey(node, KEY_A));
        deliver(testbed, node, device);
        EmissionRecorder recorder(device, {KEY_A});
        QVERIFY(testbed.releaseKey(node, KEY_A));
        deliver(testbed, node, device);

        QCOMPARE(recorder.emissions.size(), 1);
        QCOMPARE(recorder.emissions[0].pressedOnce, keys({}));
        QCOMPARE(recorder.emissions[0].pressed, keys({}));
        QVERIFY(!device.isKeyPressed());
    }

    void otherEventTypesAreIgnored()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        EmissionRecorder recorder(device, {KEY_A, KEY_B});
        QVERIFY(testbed.writeEvent(node, EV_MSC, MSC_SCAN, KEY_A));
        QVERIFY(testbed.writeEvent(node, EV_REL, KEY_A, 1));
        QVERIFY(testbed.writeEvent(node, EV_LED, KEY_A, 1));
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_REPORT, 0));
        QVERIFY(testbed.pressKey(node, KEY_B));
        deliver(testbed, node, device);

        QCOMPARE(recorder.emissions.size(), 1);
        QCOMPARE(recorder.emissions[0].pressed, keys({KEY_B}));
    }

    void aRecordAndAPartialOneProcessTheRecordAndDropTheRest()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        EmissionRecorder recorder(device, {KEY_A, KEY_B});
        LogCapture capture;
        const QByteArray record = UmockdevTestbed::eventRecord(EV_KEY, KEY_A, 1);
        QVERIFY(testbed.writeBytes(node, record + record.left(8)));
        deliver(testbed, node, device);
        QCOMPARE(recorder.emissions.size(), 1);
        QCOMPARE(recorder.emissions[0].pressedOnce, keys({KEY_A}));

        // Had the 8 bytes stayed queued, the next record would be read out of step.
        QVERIFY(testbed.pressKey(node, KEY_B));
        deliver(testbed, node, device);
        QCOMPARE(recorder.emissions.size(), 2);
        QCOMPARE(recorder.emissions[1].pressedOnce, keys({KEY_B}));
        QVERIFY(!capture.contains(QStringLiteral("Could not read a full event")));
    }

    void readsShorterThanOneRecordAreReported_data()
    {
        QTest::addColumn<int>("bytes");
        QTest::newRow("8 bytes") << 8;
        QTest::newRow("20 bytes, a whole record on 32-bit") << 20;
        QTest::newRow("one byte short of a record") << int(sizeof(input_event)) - 1;
    }

    void readsShorterThanOneRecordAreReported()
    {
        QFETCH(int, bytes);
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        EmissionRecorder recorder(device, {KEY_A});
        LogCapture capture;
        QVERIFY(
            testbed.writeBytes(node, UmockdevTestbed::eventRecord(EV_KEY, KEY_A, 1).left(bytes)));
        deliver(testbed, node, device);
        verifyLine(capture, QStringLiteral("Could not read a full event"), Logger::LEVEL_ERROR,
                   QStringLiteral("readDevice"));
        QCOMPARE(recorder.emissions.size(), 0);
        QVERIFY(device.getFd() != -1);
    }

    void oneReadTakesAtMost128Records()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        QVector<int> codes;
        QByteArray records;
        for (int i = 0; i < 150; ++i) {
            codes.append(KEY_1 + i);
            records += UmockdevTestbed::eventRecord(EV_KEY, KEY_1 + i, 1);
        }
        QVector<int> reported;
        connect(&device, &EventDevice::keymapChanged, this,
                [&reported, &codes](const EventDevice* d) {
                    for (int code : codes) {
                        if (d->isKeyPressedOnce(code)) {
                            reported.append(code);
                        }
                    }
                });
        QVERIFY(testbed.writeBytes(node, records));
        deliver(testbed, node, device);
        QCOMPARE(reported, codes.mid(0, 128));
        device.readDevice();
        QCOMPARE(reported, codes);
    }

    void keyCodesBeyondTheStateAreReportedNotStored()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        EmissionRecorder recorder(device, {});
        LogCapture capture;
        QVERIFY(testbed.writeEvent(node, EV_KEY, 800, 1));
        deliver(testbed, node, device);
        verifyLine(capture, QStringLiteral("key is invalid: 800"), Logger::LEVEL_BUG,
                   QStringLiteral("readDevice"));
        QCOMPARE(recorder.emissions.size(), 0);
    }

    void mouseWithButtonsIsUsable()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::mouse());
        EventDevice device(node);
        QVERIFY(device.getFd() != -1);
        QCOMPARE(device.getDeviceFileName(), node);
        EmissionRecorder recorder(device, {BTN_LEFT});
        QVERIFY(testbed.writeEvent(node, EV_REL, REL_X, 5));
        QVERIFY(testbed.pressKey(node, BTN_LEFT));
        deliver(testbed, node, device);
        QCOMPARE(recorder.emissions.size(), 1);
        QCOMPARE(recorder.emissions[0].pressedOnce, keys({BTN_LEFT}));
    }

    void deviceWithoutKeysIsClosed()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::relativeOnly());
        LogCapture capture;
        auto* device = new EventDevice(node);
        verifyLine(capture, "Device at " + node + " does not have keys.  It will not be used.",
                   Logger::LEVEL_WARNING, QStringLiteral("EventDevice"));
        QCOMPARE(device->getFd(), -1);
        QVERIFY(device->getDeviceFileName().isEmpty());
        device->readDevice();
        capture.clear();
        delete device;
        QCOMPARE(capture.entries().size(), 0);
    }

    void failingEventTypeQueryClosesTheDevice()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.eventTypesFail = true;
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        LogCapture capture;
        EventDevice device(node);
        verifyLine(capture, "Could not get event types for device " + node + ".",
                   Logger::LEVEL_WARNING, QStringLiteral("EventDevice"));
        QCOMPARE(device.getFd(), -1);
        QVERIFY(device.getDeviceFileName().isEmpty());
    }

    void nodeThatCannotBeOpenedIsReported()
    {
        QTemporaryDir directory;
        const QString path = directory.filePath(QStringLiteral("event-missing"));
        LogCapture capture;
        EventDevice device(path);
        verifyLine(capture, "Could not open " + path + " for reading.", Logger::LEVEL_WARNING,
                   QStringLiteral("EventDevice"));
        QCOMPARE(capture.entries().size(), 1);
        QCOMPARE(device.getFd(), -1);
        QVERIFY(device.getDeviceFileName().isEmpty());
    }

    void lastKeyCodeIsTrackedButNotCountedAsAnyKey()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {767};
        EventDevice device(testbed.addDevice(DeviceDescription::keyboard(), state));
        LogCapture capture;
        QVERIFY(device.isKeyPressed(767));
        QVERIFY(!device.isKeyPressed());
        QCOMPARE(capture.entries().size(), 0);
    }

    void keysOutsideTheStateAreRejected_data()
    {
        QTest::addColumn<int>("key");
        QTest::newRow("one past the last code") << 768;
        QTest::newRow("negative") << -1;
    }

    void keysOutsideTheStateAreRejected()
    {
        QFETCH(int, key);
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {767};
        EventDevice device(testbed.addDevice(DeviceDescription::keyboard(), state));
        LogCapture capture;
        const QString message = QStringLiteral("key is invalid: %1").arg(key);
        QVERIFY(!device.isKeyPressed(key));
        verifyLine(capture, message, Logger::LEVEL_BUG, QStringLiteral("isKeyPressed"));
        capture.clear();
        QVERIFY(!device.isKeyPressedOnce(key));
        verifyLine(capture, message, Logger::LEVEL_BUG, QStringLiteral("isKeyPressedOnce"));
    }

    void deviceVariablesAreSetAndOverwritten()
    {
        UmockdevTestbed testbed;
        EventDevice device(testbed.addDevice(DeviceDescription::keyboard()));
        device.setDeviceVariable(QStringLiteral("station_id"), QStringLiteral("3"));
        device.setDeviceVariable(QStringLiteral("seat"), QStringLiteral("left"));
        device.setDeviceVariable(QStringLiteral("station_id"), QStringLiteral("4"));
        const QHash<QString, QString> expected{{QStringLiteral("station_id"), QStringLiteral("4")},
                                               {QStringLiteral("seat"), QStringLiteral("left")}};
        QCOMPARE(device.getDeviceVariables(), expected);
    }

    void readEventsReadsEveryDeviceInOrder()
    {
        UmockdevTestbed testbed;
        const QString first = testbed.addDevice(DeviceDescription::keyboard());
        const QString second = testbed.addDevice(DeviceDescription::mouse());
        QVector<EventDevice*> devices{new EventDevice(first), new EventDevice(second)};
        QVector<const EventDevice*> senders;
        for (EventDevice* device : std::as_const(devices)) {
            connect(device, &EventDevice::keymapChanged, this,
                    [&senders](const EventDevice* sender) { senders.append(sender); });
        }
        QVERIFY(testbed.pressKey(second, BTN_RIGHT));
        QVERIFY(testbed.pressKey(first, KEY_Z));
        QVERIFY(testbed.waitForPendingInput(first));
        QVERIFY(testbed.waitForPendingInput(second));
        EventDevice::readEvents(devices);
        QCOMPARE(senders, (QVector<const EventDevice*>{devices[0], devices[1]}));
        QVERIFY(devices[0]->isKeyPressed(KEY_Z));
        QVERIFY(devices[1]->isKeyPressed(BTN_RIGHT));
        qDeleteAll(devices);
    }

    void deleteClosedEventDevicesKeepsTheOpenOnesInOrder()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState failing;
        failing.eventTypesFail = true;
        QVector<EventDevice*> devices{
            new EventDevice(testbed.addDevice(DeviceDescription::keyboard())),
            new EventDevice(testbed.addDevice(DeviceDescription::relativeOnly())),
            new EventDevice(testbed.addDevice(DeviceDescription::mouse())),
            new EventDevice(testbed.addDevice(DeviceDescription::keyboard(), failing))};
        const QVector<EventDevice*> open{devices[0], devices[2]};
        QPointer<EventDevice> withoutKeys(devices[1]);
        QPointer<EventDevice> withoutTypes(devices[3]);
        EventDevice::deleteClosedEventDevices(devices);
        QCOMPARE(devices, open);
        QVERIFY(withoutKeys.isNull());
        QVERIFY(withoutTypes.isNull());
        qDeleteAll(devices);
    }
    void droppedRecordsAreReplacedByTheKernelsKeyState()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_A, KEY_B};
        // After the drop: A came up, B is still down, C went down.
        state.laterKeysDown = {{KEY_B, KEY_C}};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        EventDevice device(node);
        QVERIFY(device.isKeyPressed(KEY_A));
        EmissionRecorder recorder(device, {KEY_A, KEY_B, KEY_C, KEY_D});

        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_DROPPED, 0));
        // The rest of the broken frame is discarded, whatever it says.
        QVERIFY(testbed.writeEvent(node, EV_KEY, KEY_D, 1));
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_REPORT, 0));
        deliver(testbed, node, device);

        QCOMPARE(recorder.emissions.size(), 2);
        QCOMPARE(recorder.emissions[0].pressed, keys({KEY_B}));
        QCOMPARE(recorder.emissions[0].pressedOnce, keys({}));
        QCOMPARE(recorder.emissions[1].pressed, keys({KEY_B, KEY_C}));
        QCOMPARE(recorder.emissions[1].pressedOnce, keys({KEY_C}));
        QVERIFY(!device.isKeyPressed(KEY_A));
        QVERIFY(!device.isKeyPressed(KEY_D));

        // Records after the resynchronising frame count again.
        QVERIFY(testbed.releaseKey(node, KEY_C));
        deliver(testbed, node, device);
        QCOMPARE(recorder.emissions.size(), 3);
        QCOMPARE(recorder.emissions[2].pressed, keys({KEY_B}));
    }

    void aDropWithNothingChangedReportsNothing()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_A};
        state.laterKeysDown = {{KEY_A}};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        EventDevice device(node);
        EmissionRecorder recorder(device, {KEY_A});
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_DROPPED, 0));
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_REPORT, 0));
        QVERIFY(testbed.pressKey(node, KEY_B));
        deliver(testbed, node, device);
        QCOMPARE(recorder.emissions.size(), 1);
        QVERIFY(device.isKeyPressed(KEY_A));
        QVERIFY(device.isKeyPressed(KEY_B));
    }

    void releaseFramesAreMarkedWhenTheKernelMadeThemUp_data()
    {
        QTest::addColumn<int>("reportValue");
        QTest::addColumn<bool>("byKernel");
        QTest::newRow("typed release") << 0 << false;
        QTest::newRow("the kernel's release on unplug") << 1 << true;
    }

    void releaseFramesAreMarkedWhenTheKernelMadeThemUp()
    {
        QFETCH(int, reportValue);
        QFETCH(bool, byKernel);
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_LEFTCTRL, KEY_F1};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        EventDevice device(node);
        QVector<bool> marks;
        connect(&device, &EventDevice::keymapChanged, this, [&marks](const EventDevice* changed) {
            marks.append(changed->isReleasedByKernel());
        });
        QVERIFY(testbed.writeEvent(node, EV_KEY, KEY_F1, 0));
        QVERIFY(testbed.writeEvent(node, EV_KEY, KEY_LEFTCTRL, 0));
        QVERIFY(testbed.writeEvent(node, EV_SYN, SYN_REPORT, reportValue));
        // The next frame is a typed one again.
        QVERIFY(testbed.pressKey(node, KEY_A));
        deliver(testbed, node, device);
        QCOMPARE(marks, QVector<bool>({byKernel, byKernel, false}));
        QVERIFY(!device.isReleasedByKernel());
    }

    void recordsWaitInTheDevicesQueueUntilTheUpdate()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::mouse());
        EventDevice device(node);
        EmissionRecorder recorder(device, {BTN_LEFT});
        QVERIFY(testbed.pressKey(node, BTN_LEFT));
        QVERIFY(testbed.waitForPendingInput(node));
        // The socket notifier takes the records as they arrive, without processing them.
        QVERIFY(QTest::qWaitFor([&] {
            pollfd pending{device.getFd(), POLLIN, 0};
            return poll(&pending, 1, 0) == 0;
        }));
        QCOMPARE(recorder.emissions.size(), 0);
        QVERIFY(!device.isKeyPressed(BTN_LEFT));
        device.readDevice();
        QCOMPARE(recorder.emissions.size(), 1);
        QVERIFY(device.isKeyPressed(BTN_LEFT));
    }

    void moreThanAnUpdatesShareOfRecordsWaitsForTheNextUpdate()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        int emissions = 0;
        connect(&device, &EventDevice::keymapChanged, this, [&emissions] { ++emissions; });
        // More than one update processes, in portions the node's buffer holds, each taken by
        // the notifier before the next.
        int records = 0;
        for (; records <= int(EventDevice::maxRecordsPerUpdate); records += 100) {
            QByteArray bytes;
            for (int i = 0; i < 50; ++i) {
                bytes += UmockdevTestbed::eventRecord(EV_KEY, KEY_A, 1);
                bytes += UmockdevTestbed::eventRecord(EV_KEY, KEY_A, 0);
            }
            QVERIFY(testbed.writeBytes(node, bytes));
            QVERIFY(testbed.waitForPendingInput(node));
            QVERIFY(QTest::qWaitFor([&] {
                pollfd pending{device.getFd(), POLLIN, 0};
                return poll(&pending, 1, 0) == 0;
            }));
        }
        QCOMPARE(emissions, 0);
        device.readDevice();
        QCOMPARE(emissions, int(EventDevice::maxRecordsPerUpdate));
        device.readDevice();
        QCOMPARE(emissions, records);
    }

    void nodesAreOpenedByTheirDeviceNumber_data()
    {
        QTest::addColumn<int>("major");
        QTest::addColumn<bool>("opened");
        QTest::newRow("input device, major 13") << 13 << true;
        QTest::newRow("serial port, major 4") << 4 << false;
        QTest::newRow("pseudo-terminal, major 136") << 136 << false;
        QTest::newRow("no device number, no driver behind it") << 0 << true;
    }

    void nodesAreOpenedByTheirDeviceNumber()
    {
        QFETCH(int, major);
        QFETCH(bool, opened);
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.deviceMajor = major;
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        LogCapture capture;
        EventDevice device(node);
        QCOMPARE(device.getFd() != -1, opened);
        QCOMPARE(capture.contains("Could not open " + node + " for reading."), !opened);
        QCOMPARE(capture.contains("Opened " + node + " for reading "), opened);
    }

    void characterDevicesOtherThanInputDevicesAreNeverOpened()
    {
        LogCapture capture;
        EventDevice device(QStringLiteral("/dev/null"));
        QCOMPARE(device.getFd(), -1);
        verifyLine(capture, QStringLiteral("Could not open /dev/null for reading."),
                   Logger::LEVEL_WARNING, QStringLiteral("EventDevice"));
        QCOMPARE(capture.entries().size(), 1);
    }

    void deviceNamesReachTheLogByteForByte()
    {
        UmockdevTestbed testbed;
        const QByteArray utf8Name = QByteArrayLiteral("Clavier \xc2\xae Pro \xd0\x96");
        const QString node =
            testbed.addDevice(DeviceDescription::keyboard(QString::fromUtf8(utf8Name)));
        LogCapture capture;
        EventDevice device(node);
        const QString expected =
            "Name of device at " + node + " is " + QString::fromLatin1(utf8Name) + ".";
        verifyLine(capture, expected, Logger::LEVEL_INFO, QStringLiteral("EventDevice"));
        // The log writes Latin-1, so these are the kernel's bytes.
        QCOMPARE(capture.find(expected)->message.toLatin1(),
                 "Name of device at " + node.toLatin1() + " is " + utf8Name + ".");
    }
};

SELVANE_UMOCKDEV_TEST_MAIN(EventDeviceTest)
#include "test_eventdevice.moc"
