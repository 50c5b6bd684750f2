#include "LogCapture.h"
#include "UmockdevTestbed.h"
#include "input/EventDevice.h"
#include "input/LedBlinker.h"

#include <QtTest>

#include <memory>

using Orvanta::Logger;

namespace {

// A clock the test steps by hand.
struct ManualClock
{
    qint64 now = 1700000000;
    LedBlinker::Clock function()
    {
        return [this] { return now; };
    }
};

struct Led
{
    int code;
    int value;
    bool operator==(const Led& other) const { return code == other.code && value == other.value; }
};

char* toString(const Led& led)
{
    return QTest::toString(QStringLiteral("LED %1=%2").arg(led.code).arg(led.value));
}

QVector<Led> asLeds(const QVector<input_event>& events)
{
    QVector<Led> leds;
    for (const input_event& event : events) {
        leds.append({event.code, event.value});
    }
    return leds;
}

// A record the code under test never writes, to show that it wrote nothing before it.
constexpr int markerType = EV_MSC;
constexpr int markerCode = MSC_SCAN;
constexpr int markerValue = 4242;

bool isMarker(const input_event& event)
{
    return event.type == markerType && event.code == markerCode && event.value == markerValue;
}

} // namespace

class LedBlinkerTest : public QObject
{
    Q_OBJECT

private:
    // Nothing was written to the node since the last read.
    static void verifyNothingWritten(UmockdevTestbed& testbed, const QString& node)
    {
        QVERIFY(testbed.injectDeviceSideEvent(node, markerType, markerCode, markerValue));
        const QVector<input_event> events = testbed.readEvents(node, 1);
        QCOMPARE(events.size(), 1);
        QVERIFY2(isMarker(events.first()), "the code under test wrote a record");
    }

private Q_SLOTS:
    void setLedOnWritesOneBareLedRecord()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        device.setLedOn(LED_CAPSL, true);
        device.setLedOn(LED_CAPSL, false);
        const QVector<input_event> events = testbed.readEvents(node, 2);
        QCOMPARE(events.size(), 2);
        for (const input_event& event : events) {
            QCOMPARE(int(event.type), EV_LED);
            QCOMPARE(qint64(event.input_event_sec), qint64(0));
            QCOMPARE(qint64(event.input_event_usec), qint64(0));
        }
        QCOMPARE(asLeds(events), (QVector<Led>{{LED_CAPSL, 1}, {LED_CAPSL, 0}}));
        verifyNothingWritten(testbed, node);
    }

    void ledCodeFifteenIsRejectedAndFourteenWritten()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        LogCapture capture;
        device.setLedOn(15, true);
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& line = capture.entries().first();
        QCOMPARE(line.message, QStringLiteral("ledCode is invalid: 15"));
        QCOMPARE(line.level, Logger::LEVEL_BUG);
        QCOMPARE(line.file, QStringLiteral("EventDevice"));
        QCOMPARE(line.function, QStringLiteral("setLedOn"));
        device.setLedOn(14, true);
        // The first record to arrive is LED 14's: code 15 wrote nothing.
        QCOMPARE(asLeds(testbed.readEvents(node, 1)), (QVector<Led>{{14, 1}}));
        QCOMPARE(capture.entries().size(), 1);
    }

    void restoreWritesEverySavedLed()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.ledsOn = {LED_NUML, LED_SCROLLL, 14};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        EventDevice device(node);
        device.restoreLedState();
        QVector<Led> expected;
        for (int led = 0; led <= 14; ++led) {
            expected.append({led, state.ledsOn.contains(led) ? 1 : 0});
        }
        const QVector<input_event> events = testbed.readEvents(node, 15);
        QCOMPARE(asLeds(events), expected);
        for (const input_event& event : events) {
            QCOMPARE(int(event.type), EV_LED);
        }
        verifyNothingWritten(testbed, node);
    }

    void theBlinkerSavesTheLedsAgainAndAFailedQueryIsReported()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.ledStateFails = true;
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        LogCapture capture;
        EventDevice device(node);
        const QString prefix = "ioctl() error on device " + node + " : ";
        const auto failedQueries = [&capture, &prefix] {
            QVector<LogCapture::Entry> lines;
            for (const LogCapture::Entry& line : capture.entries()) {
                if (line.message.startsWith(prefix)) {
                    lines.append(line);
                }
            }
            return lines;
        };
        QCOMPARE(failedQueries().size(), 1);
        const LogCapture::Entry line = failedQueries().first();
        QCOMPARE(line.level, Logger::LEVEL_WARNING);
        QCOMPARE(line.file, QStringLiteral("EventDevice"));
        QCOMPARE(line.function, QStringLiteral("storeLedState"));
        // The error text after the prefix is whatever the emulation answers.
        QVERIFY(line.message.size() > prefix.size());
        QVERIFY(device.getFd() != -1);

        ManualClock clock;
        LedBlinker blinker(&device, clock.function());
        QCOMPARE(failedQueries().size(), 2);
    }

    void ledCallsOnAClosedDeviceDoNothing()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::relativeOnly());
        EventDevice device(node);
        QCOMPARE(device.getFd(), -1);
        LogCapture capture;
        device.storeLedState();
        device.setLedOn(LED_NUML, true);
        device.setLedOn(15, true);
        device.restoreLedState();
        {
            ManualClock clock;
            LedBlinker blinker(&device, clock.function());
            ++clock.now;
            blinker.update();
        }
        QCOMPARE(capture.entries().size(), 0);
        verifyNothingWritten(testbed, node);
    }

    void nullDeviceMakesAnInertBlinker()
    {
        LogCapture capture;
        ManualClock clock;
        auto blinker = std::make_unique<LedBlinker>(nullptr, clock.function());
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& line = capture.entries().first();
        QCOMPARE(line.message, QStringLiteral("eventDevice is NULL"));
        QCOMPARE(line.level, Logger::LEVEL_BUG);
        QCOMPARE(line.file, QStringLiteral("LedBlinker"));
        QCOMPARE(line.function, QStringLiteral("LedBlinker"));
        QCOMPARE(blinker->getEventDevice(), nullptr);
        ++clock.now;
        blinker->update();
        blinker.reset();
        QCOMPARE(capture.entries().size(), 1);
    }

    void rotationStepsThroughNumCapsAndScroll()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        ManualClock clock;
        LedBlinker blinker(&device, clock.function());
        QCOMPARE(blinker.getEventDevice(), &device);

        blinker.update(); // still the second of construction
        verifyNothingWritten(testbed, node);

        const QVector<QVector<Led>> steps{
            {{LED_NUML, 0}, {LED_CAPSL, 1}},
            {{LED_CAPSL, 0}, {LED_SCROLLL, 1}},
            {{LED_SCROLLL, 0}, {LED_NUML, 1}},
            {{LED_NUML, 0}, {LED_CAPSL, 1}},
        };
        for (const QVector<Led>& step : steps) {
            ++clock.now;
            blinker.update();
            QCOMPARE(asLeds(testbed.readEvents(node, 2)), step);
        }
        verifyNothingWritten(testbed, node);
    }

    void twoUpdatesInOneSecondMakeOneStep()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        ManualClock clock;
        LedBlinker blinker(&device, clock.function());
        clock.now += 1;
        blinker.update();
        blinker.update();
        QCOMPARE(asLeds(testbed.readEvents(node, 2)),
                 (QVector<Led>{{LED_NUML, 0}, {LED_CAPSL, 1}}));
        verifyNothingWritten(testbed, node);
    }

    void aClockSetBackWaitsUntilItPassesTheLastStep()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        ManualClock clock;
        LedBlinker blinker(&device, clock.function());
        clock.now += 5;
        blinker.update();
        QCOMPARE(testbed.readEvents(node, 2).size(), 2);
        clock.now -= 60;
        blinker.update();
        clock.now += 60;
        blinker.update();
        verifyNothingWritten(testbed, node);
        clock.now += 1;
        blinker.update();
        QCOMPARE(asLeds(testbed.readEvents(node, 2)),
                 (QVector<Led>{{LED_CAPSL, 0}, {LED_SCROLLL, 1}}));
    }

    void deletingTheBlinkerRestoresTheSavedLeds_data()
    {
        QTest::addColumn<int>("steps");
        for (int steps : {0, 1, 2, 3, 5}) {
            QTest::addRow("after %d steps", steps) << steps;
        }
    }

    void deletingTheBlinkerRestoresTheSavedLeds()
    {
        QFETCH(int, steps);
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.ledsOn = {LED_NUML};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        EventDevice device(node);
        ManualClock clock;
        auto blinker = std::make_unique<LedBlinker>(&device, clock.function());
        for (int i = 0; i < steps; ++i) {
            ++clock.now;
            blinker->update();
        }
        QCOMPARE(testbed.readEvents(node, 2 * steps).size(), 2 * steps);
        blinker.reset();

        const QVector<Led> restored = asLeds(testbed.readEvents(node, 15));
        QCOMPARE(restored.size(), 15);
        QCOMPARE(restored[LED_NUML], (Led{LED_NUML, 1}));
        QCOMPARE(restored[LED_CAPSL], (Led{LED_CAPSL, 0}));
        QCOMPARE(restored[LED_SCROLLL], (Led{LED_SCROLLL, 0}));
        verifyNothingWritten(testbed, node);
    }

    void theDefaultClockIsTheWallClock()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        EventDevice device(node);
        LedBlinker blinker(&device);
        // Within the second of construction no step is due yet, whatever the machine's speed:
        // the wall clock has to pass the second the blinker started in.
        const qint64 started = QDateTime::currentSecsSinceEpoch();
        blinker.update();
        if (QDateTime::currentSecsSinceEpoch() == started) {
            verifyNothingWritten(testbed, node);
        }
        QVector<input_event> step;
        QTRY_VERIFY_WITH_TIMEOUT((blinker.update(),
                                  step += testbed.readEvents(node, 2 - step.size(), 10),
                                  step.size() == 2),
                                 5000);
        QCOMPARE(asLeds(step), (QVector<Led>{{LED_NUML, 0}, {LED_CAPSL, 1}}));
    }
};

SELVANE_UMOCKDEV_TEST_MAIN(LedBlinkerTest)
#include "test_ledblinker.moc"
