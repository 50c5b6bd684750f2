// LedBlinker and the LED calls of EventDevice on kernel keyboards: the LED
// events that really reach the device, and the unplug while blinking.
#include "LogCapture.h"
#include "UinputTestMain.h"

#include "input/EventDevice.h"
#include "input/LedBlinker.h"

#include <linux/input.h>

#include <cerrno>
#include <cstring>

#include <memory>

using LedEvents = QVector<UinputLedEvent>;

// How the input core passes LED writes on: an LED event written to the
// event node reaches the device (here the uinput descriptor) only if the
// device declares that LED and only if it changes the LED's state. So of the
// fifteen events restoreLedState() writes, the device sees at most those of
// Num, Caps and Scroll Lock that differ from what the blinker left lit.
//
// The console's keyboard handler also drives LEDs, through the LED triggers:
// it resets every keyboard's LEDs to the console's lock state when a keyboard
// connects or a lock key changes it. The tests create their keyboard first
// and press no lock keys, so every LED event seen here comes from the code
// under test.
class LedBlinkerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void blinkingAndRestoringWriteExactlyTheseLedEvents_data()
    {
        QTest::addColumn<int>("steps");
        QTest::addColumn<LedEvents>("restored");
        QTest::newRow("deleted before the first step") << 0 << LedEvents{};
        QTest::newRow("after one step, Caps lit") << 1 << LedEvents{{LED_NUML, 1}, {LED_CAPSL, 0}};
        QTest::newRow("after two steps, Scroll lit")
            << 2 << LedEvents{{LED_NUML, 1}, {LED_SCROLLL, 0}};
        QTest::newRow("after three steps, Num lit as before") << 3 << LedEvents{};
        QTest::newRow("after four steps, Caps lit again")
            << 4 << LedEvents{{LED_NUML, 1}, {LED_CAPSL, 0}};
    }

    void blinkingAndRestoringWriteExactlyTheseLedEvents()
    {
        QFETCH(int, steps);
        QFETCH(LedEvents, restored);
        // Each step switches the lit LED off and the next one on; with Num
        // Lock on beforehand every one of these is a change the device sees.
        const QVector<LedEvents> rotation = {
            {{LED_NUML, 0}, {LED_CAPSL, 1}},
            {{LED_CAPSL, 0}, {LED_SCROLLL, 1}},
            {{LED_SCROLLL, 0}, {LED_NUML, 1}},
            {{LED_NUML, 0}, {LED_CAPSL, 1}},
        };

        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        QVERIFY(keyboard.writeToNode(EV_LED, LED_NUML, 1));
        QCOMPARE(keyboard.takeLedEvents(), (LedEvents{{LED_NUML, 1}}));

        EventDevice device(keyboard.devicePath());
        QVERIFY(device.getFd() != -1);
        qint64 now = 1000;
        auto blinker = std::make_unique<LedBlinker>(&device, [&now] { return now; });
        blinker->update();
        QCOMPARE(keyboard.takeLedEvents(), LedEvents{});

        for (int step = 0; step < steps; ++step) {
            ++now;
            blinker->update();
            QCOMPARE(keyboard.takeLedEvents(), rotation.at(step));
            // A second update within the same second makes no step.
            blinker->update();
            QCOMPARE(keyboard.takeLedEvents(), LedEvents{});
        }

        blinker.reset();
        QCOMPARE(keyboard.takeLedEvents(), restored);
        QCOMPARE(keyboard.ledBits(), 1 << LED_NUML);
    }

    void ledCodesUpTo14AreWrittenAndAbove14Rejected()
    {
        // Declaring LEDs 14 and 15 lets the device show any write of them.
        DeviceDescription description = DeviceDescription::keyboard();
        description.leds << 14 << 15;
        UinputDevice keyboard(description);
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        EventDevice device(keyboard.devicePath());
        QVERIFY(device.getFd() != -1);

        LogCapture capture;
        device.setLedOn(14, true);
        QCOMPARE(keyboard.takeLedEvents(), (LedEvents{{14, 1}}));
        QVERIFY(capture.entries().isEmpty());

        device.setLedOn(15, true);
        QCOMPARE(keyboard.takeLedEvents(), LedEvents{});
        QCOMPARE(capture.messages(), QStringList{"ledCode is invalid: 15"});
        QCOMPARE(capture.entries().first().level, Orvanta::Logger::LEVEL_BUG);
    }

    void unplugWhileBlinkingClosesTheDeviceInSetLedOn()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        const QString path = keyboard.devicePath();
        auto device = std::make_unique<EventDevice>(path);
        QVERIFY(device->getFd() != -1);
        qint64 now = 1000;
        auto blinker = std::make_unique<LedBlinker>(device.get(), [&now] { return now; });
        ++now;
        blinker->update();
        QCOMPARE(keyboard.takeLedEvents(), (LedEvents{{LED_CAPSL, 1}}));

        QVERIFY2(keyboard.unplug(), qPrintable(keyboard.errorString()));
        LogCapture capture;
        ++now;
        blinker->update();
        // The first write of the step meets the unplug and closes the
        // device; the second one finds it closed and does nothing.
        QCOMPARE(capture.messages(),
                 QStringList{"Device " + path + " has been removed.  Closing device."});
        QCOMPARE(capture.entries().first().level, Orvanta::Logger::LEVEL_INFO);
        QCOMPARE(capture.entries().first().file, QString("EventDevice"));
        QCOMPARE(capture.entries().first().function, QString("setLedOn"));
        QCOMPARE(device->getFd(), -1);

        // Later steps, the restore and the close are all silent.
        capture.clear();
        ++now;
        blinker->update();
        blinker.reset();
        device.reset();
        QVERIFY2(capture.entries().isEmpty(), qPrintable(capture.messages().join('\n')));
    }

    void ledQueryAndRestoreAfterAnUnplugAreReportedAndKeepTheDevice()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        const QString path = keyboard.devicePath();
        EventDevice device(path);
        QVERIFY(device.getFd() != -1);
        QVERIFY2(keyboard.unplug(), qPrintable(keyboard.errorString()));
        const QString reason = QString::fromLocal8Bit(std::strerror(ENODEV));

        LogCapture capture;
        device.storeLedState();
        QCOMPARE(capture.messages(),
                 QStringList{"ioctl() error on device " + path + " : " + reason});
        QCOMPARE(capture.entries().first().level, Orvanta::Logger::LEVEL_WARNING);
        QCOMPARE(capture.entries().first().file, QString("EventDevice"));
        QCOMPARE(capture.entries().first().function, QString("storeLedState"));

        // Each of the fifteen writes fails on its own and the loop goes on;
        // unlike setLedOn(), the restore leaves the descriptor open.
        capture.clear();
        device.restoreLedState();
        QCOMPARE(capture.entries().size(), 15);
        for (const LogCapture::Entry& entry : capture.entries()) {
            QCOMPARE(entry.message, "write() error on device " + path + " : " + reason);
            QCOMPARE(entry.level, Orvanta::Logger::LEVEL_WARNING);
            QCOMPARE(entry.file, QString("EventDevice"));
            QCOMPARE(entry.function, QString("restoreLedState"));
        }
        QVERIFY(device.getFd() != -1);
    }
};

SELVANE_UINPUT_TEST_MAIN(LedBlinkerTest)
#include "test_ledblinker.moc"
