// The input reader on emulated evdev nodes (umockdev): records as a device sends them, and the
// key state asked of the device (EVIOCGKEY) after the kernel dropped records.
#include "InputReaderTesting.h"
#include "UmockdevTestbed.h"
#include "input/InputReader.h"

#include <QFile>
#include <QSignalSpy>
#include <QtTest>

#include <array>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

using namespace InputReaderTesting;
using Orvanta::OwnedFd;

namespace {

// Opens the node as the daemon does and hands the descriptor to the reader, with the key state
// read at the open. The very descriptor: umockdev answers no ioctl on a dup() of it, and starts
// its answers afresh for a second open.
InputReader::DeviceId openAndAdd(InputReader& reader, const QString& node)
{
    OwnedFd fd(
        open(QFile::encodeName(node).constData(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    std::array<unsigned char, UmockdevTestbed::keyBytes> keys{};
    if (!fd.isValid() || ioctl(fd.get(), EVIOCGKEY(keys.size()), keys.data()) == -1) {
        return 0;
    }
    return reader.add(std::move(fd), keys.data(), keys.size());
}

} // namespace

class InputReaderDevicesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void keyboardRecordsArriveAsTheDeviceSendsThem()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_A};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        InputReader reader;
        const InputReader::DeviceId id = openAndAdd(reader, node);
        QVERIFY(id != 0);
        QSignalSpy waiting(&reader, &InputReader::recordsWaiting);

        QVERIFY(testbed.releaseKey(node, KEY_A));
        QVERIFY(testbed.repeatKey(node, KEY_B));
        QVERIFY(testbed.pressKey(node, KEY_B));
        QVERIFY(waiting.wait());
        QCOMPARE(takeRecords(reader, id, 4),
                 QVector<KeyRecord>({KeyRecord::release(KEY_A), KeyRecord::frameEnd(),
                                     KeyRecord::press(KEY_B), KeyRecord::frameEnd()}));
    }

    void aMovingMouseQueuesNothing()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::mouse());
        InputReader reader;
        const InputReader::DeviceId id = openAndAdd(reader, node);
        QVERIFY(id != 0);
        QSignalSpy waiting(&reader, &InputReader::recordsWaiting);

        for (int i = 0; i < 300; ++i) {
            QVERIFY(testbed.writeBytes(node, eventRecord(EV_REL, REL_X, 3) +
                                                 eventRecord(EV_SYN, SYN_REPORT, 0)));
        }
        QVERIFY(testbed.pressKey(node, BTN_LEFT));
        // The wakeup reaches the main thread through its event loop, and only
        // while records wait: it is awaited before they are taken.
        QTRY_VERIFY(!waiting.isEmpty());
        QCOMPARE(takeRecords(reader, id, 2),
                 QVector<KeyRecord>({KeyRecord::press(BTN_LEFT), KeyRecord::frameEnd()}));
        QCOMPARE(waiting.size(), 1);
    }

    void droppedRecordsAreReplacedByTheKernelsKeyState()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_A, KEY_B};
        // After the drop: A came up, B is still down, C went down.
        state.laterKeysDown = {{KEY_B, KEY_C}};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        InputReader reader;
        const InputReader::DeviceId id = openAndAdd(reader, node);
        QVERIFY(id != 0);

        // The rest of the broken frame is discarded, whatever it says.
        QVERIFY(testbed.writeBytes(node, eventRecord(EV_SYN, SYN_DROPPED, 0) +
                                             eventRecord(EV_KEY, KEY_D, 1) +
                                             eventRecord(EV_SYN, SYN_REPORT, 0)));
        QCOMPARE(takeRecords(reader, id, 3),
                 QVector<KeyRecord>(
                     {KeyRecord::release(KEY_A), KeyRecord::press(KEY_C), KeyRecord::frameEnd()}));
        // Records after the resynchronising frame count again.
        QVERIFY(testbed.releaseKey(node, KEY_C));
        QCOMPARE(takeRecords(reader, id, 2),
                 QVector<KeyRecord>({KeyRecord::release(KEY_C), KeyRecord::frameEnd()}));
    }

    void aDropWithNothingChangedQueuesNothing()
    {
        UmockdevTestbed testbed;
        UmockdevDeviceState state;
        state.keysDown = {KEY_A};
        state.laterKeysDown = {{KEY_A}};
        const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
        InputReader reader;
        const InputReader::DeviceId id = openAndAdd(reader, node);
        QVERIFY(id != 0);

        QVERIFY(testbed.writeBytes(node, eventRecord(EV_SYN, SYN_DROPPED, 0) +
                                             eventRecord(EV_SYN, SYN_REPORT, 0)));
        QVERIFY(testbed.pressKey(node, KEY_B));
        QCOMPARE(takeRecords(reader, id, 2),
                 QVector<KeyRecord>({KeyRecord::press(KEY_B), KeyRecord::frameEnd()}));
    }

    void aShortReadComesAfterTheRecordsBeforeIt()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        InputReader reader;
        const InputReader::DeviceId id = openAndAdd(reader, node);
        QVERIFY(id != 0);
        QSignalSpy waiting(&reader, &InputReader::recordsWaiting);

        QVERIFY(testbed.pressKey(node, KEY_A));
        QVERIFY(waiting.wait());
        QVERIFY(testbed.writeBytes(node, eventRecord(EV_KEY, KEY_B, 1).left(8)));
        QVERIFY(waiting.wait());

        InputReader::Taken taken = reader.take(id, 1);
        QCOMPARE(taken.records, std::vector<KeyRecord>({KeyRecord::press(KEY_A)}));
        QCOMPARE(taken.error, 0);
        taken = reader.take(id, 1);
        QCOMPARE(taken.records, std::vector<KeyRecord>({KeyRecord::frameEnd()}));
        QCOMPARE(taken.error, InputReader::shortRead);
        // The device is read again once the error is taken.
        QVERIFY(testbed.pressKey(node, KEY_C));
        QCOMPARE(takeRecords(reader, id, 2),
                 QVector<KeyRecord>({KeyRecord::press(KEY_C), KeyRecord::frameEnd()}));
    }

    void removingADeviceWhileItsRecordsArrive()
    {
        UmockdevTestbed testbed;
        const QString node = testbed.addDevice(DeviceDescription::keyboard());
        const QString other = testbed.addDevice(DeviceDescription::keyboard());
        InputReader reader;
        const InputReader::DeviceId id = openAndAdd(reader, node);
        const InputReader::DeviceId otherId = openAndAdd(reader, other);
        QVERIFY(id != 0 && otherId != 0);
        bool removed = false;
        bool toldAfterRemoval = false;
        connect(&reader, &InputReader::recordsWaiting, this,
                [&](InputReader::DeviceId told) { toldAfterRemoval |= removed && told == id; });

        // Fewer bytes than the terminal holds, so that the writer never waits for a reader.
        std::thread writer([&] {
            for (int i = 0; i < 150; ++i) {
                testbed.writeBytes(node, keyFrame(KEY_1 + i % 10, i % 2));
            }
        });
        const bool someArrived = QTest::qWaitFor([&] { return reader.queuedRecords(id) > 0; });
        reader.remove(id);
        removed = true;
        writer.join();
        QVERIFY(someArrived);
        QCOMPARE(reader.queuedRecords(id), std::size_t(0));
        QVERIFY(reader.take(id, everything).records.empty());

        // The other device is read on, and the removed one is not told of.
        QVERIFY(testbed.pressKey(other, KEY_A));
        QCOMPARE(takeRecords(reader, otherId, 2),
                 QVector<KeyRecord>({KeyRecord::press(KEY_A), KeyRecord::frameEnd()}));
        QVERIFY(!toldAfterRemoval);
    }

    void manyKeyboardsAreReadSideBySide()
    {
        UmockdevTestbed testbed;
        InputReader reader;
        constexpr int keyboards = 16;
        constexpr int frames = 20;
        std::map<InputReader::DeviceId, QString> nodes;
        std::map<InputReader::DeviceId, QVector<KeyRecord>> received;
        for (int i = 0; i < keyboards; ++i) {
            const QString node = testbed.addDevice(DeviceDescription::keyboard());
            const InputReader::DeviceId id = openAndAdd(reader, node);
            QVERIFY(id != 0);
            nodes[id] = node;
            received[id];
        }
        connect(&reader, &InputReader::recordsWaiting, this, [&](InputReader::DeviceId id) {
            InputReader::Taken taken = reader.take(id, everything);
            received[id].append(QVector<KeyRecord>(taken.records.begin(), taken.records.end()));
        });

        QVector<KeyRecord> expected;
        for (int frame = 0; frame < frames; ++frame) {
            for (const auto& device : nodes) {
                QVERIFY(testbed.writeBytes(device.second, keyFrame(KEY_1 + frame, frame % 2)));
            }
            expected.append(
                {KeyRecord::Type::KEY, static_cast<std::uint16_t>(KEY_1 + frame), frame % 2});
            expected.append(KeyRecord::frameEnd());
        }
        QVERIFY(QTest::qWaitFor([&] {
            for (const auto& device : received) {
                if (device.second.size() < expected.size()) {
                    return false;
                }
            }
            return true;
        }));
        for (const auto& device : received) {
            QCOMPARE(device.second, expected);
        }
    }
};

SELVANE_UMOCKDEV_TEST_MAIN(InputReaderDevicesTest)
#include "test_inputreader_devices.moc"
