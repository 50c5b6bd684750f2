// The input reader on kernel input devices: a main thread that does not look for a while loses
// no click of a fast mouse, a full queue lets the kernel drop and the key state is read afresh,
// and a device that goes away ends with ENODEV.
#include "FramePacer.h"
#include "UinputTestMain.h"

#include "input/InputReader.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>

#include <linux/input.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fcntl.h>
#include <limits>
#include <set>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using Orvanta::OwnedFd;

namespace {

constexpr std::size_t everything = std::numeric_limits<std::size_t>::max();
using KeyBits = std::array<unsigned char, KEY_MAX / 8 + 1>;

// Opens the device's node as the daemon does and hands it to the reader with the key state
// read at the open.
InputReader::DeviceId openAndAdd(InputReader& reader, const UinputDevice& device)
{
    OwnedFd fd(open(QFile::encodeName(device.devicePath()).constData(),
                    O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    KeyBits keys{};
    if (!fd.isValid() || ioctl(fd.get(), EVIOCGKEY(keys.size()), keys.data()) == -1) {
        return 0;
    }
    return reader.add(std::move(fd), keys.data(), keys.size());
}

// The keys down once `records` are applied to no key held.
std::set<int> keysDownAfter(const std::vector<KeyRecord>& records)
{
    std::set<int> down;
    for (const KeyRecord& record : records) {
        if (record.type != KeyRecord::Type::KEY) {
            continue;
        }
        if (record.value == 1) {
            down.insert(record.code);
        } else {
            down.erase(record.code);
        }
    }
    return down;
}

void append(std::vector<KeyRecord>& records, const InputReader::Taken& taken)
{
    records.insert(records.end(), taken.records.begin(), taken.records.end());
}

} // namespace

class InputReaderKernelTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aMainThreadThatDoesNotLookLosesNoClick()
    {
        UinputDevice mouse(DeviceDescription::mouse());
        QVERIFY2(mouse.isValid(), qPrintable(mouse.errorString()));
        InputReader reader;
        const InputReader::DeviceId id = openAndAdd(reader, mouse);
        QVERIFY(id != 0);

        // 4000 movement frames a second with 20 clicks among them, far more than the kernel's
        // buffer holds; meanwhile this thread takes nothing and runs no event loop.
        constexpr int clicks = 20;
        constexpr int framesPerClick = 100;
        std::atomic<bool> sent{true};
        QElapsedTimer sending;
        sending.start();
        std::thread sender([&] {
            // A real mouse's reports cost the processor nearly nothing; emulating one through
            // uinput on the VM's one emulated processor costs more than reading it. At the
            // lowest priority the sender, like a device, does not take the reader's time.
            // (On Linux this sets the calling thread's priority alone.)
            setpriority(PRIO_PROCESS, 0, 19);
            FramePacer pacer(4000);
            int direction = 1;
            for (int frame = 0; frame < clicks * framesPerClick; ++frame) {
                bool ok = mouse.send(EV_REL, REL_X, direction) &&
                          mouse.send(EV_REL, REL_Y, direction) && mouse.sync();
                if (frame % framesPerClick == 0) {
                    ok = ok && mouse.press(BTN_LEFT);
                } else if (frame % framesPerClick == framesPerClick / 2) {
                    ok = ok && mouse.release(BTN_LEFT);
                }
                sent = sent && ok;
                direction = -direction;
                pacer.waitForNextFrame();
            }
        });
        sender.join();
        QVERIFY(sent);
        qInfo("the mouse sent %d frames in %lld ms", clicks * framesPerClick, sending.elapsed());

        std::vector<KeyRecord> records;
        QVERIFY(QTest::qWaitFor([&] {
            append(records, reader.take(id, everything));
            return records.size() >= 4 * clicks;
        }));
        std::vector<KeyRecord> expected;
        for (int click = 0; click < clicks; ++click) {
            expected.insert(expected.end(), {KeyRecord::press(BTN_LEFT), KeyRecord::frameEnd(),
                                             KeyRecord::release(BTN_LEFT), KeyRecord::frameEnd()});
        }
        QVERIFY(records == expected);
    }

    void aFullQueueLetsTheKernelDropAndTheKeyStateIsReadAfresh()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        InputReader reader;
        const InputReader::DeviceId id = openAndAdd(reader, keyboard);
        QVERIFY(id != 0);

        // Two records a frame once filtered, more than the queue and the kernel hold together.
        constexpr int frames = 3 * int(InputReader::maxQueuedRecords);
        for (int frame = 0; frame < frames; ++frame) {
            QVERIFY(frame % 2 == 0 ? keyboard.press(KEY_A) : keyboard.release(KEY_A));
        }
        QVERIFY(keyboard.press(KEY_B));
        QVERIFY(QTest::qWaitFor(
            [&] { return reader.queuedRecords(id) == InputReader::maxQueuedRecords; }));

        // The reader goes on once records are taken. What it queues ends with the last frame
        // (or the frame read afresh in its place) and in the kernel's key state: A up, B down.
        const std::vector<KeyRecord> lastFrame = {KeyRecord::press(KEY_B), KeyRecord::frameEnd()};
        std::vector<KeyRecord> records;
        const bool complete = QTest::qWaitFor([&] {
            append(records, reader.take(id, everything));
            return records.size() >= lastFrame.size() &&
                   std::equal(lastFrame.begin(), lastFrame.end(), records.end() - 2);
        });
        QVERIFY(complete);
        QVERIFY(keysDownAfter(records) == std::set<int>{KEY_B});
        // Records were dropped on the way.
        QVERIFY(records.size() < std::size_t(2 * frames));
    }

    void aDeviceThatGoesAwayEndsWithENODEV()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        QVERIFY(keyboard.press(KEY_A));
        InputReader reader;
        const InputReader::DeviceId id = openAndAdd(reader, keyboard);
        QVERIFY(id != 0);
        QSignalSpy waiting(&reader, &InputReader::recordsWaiting);

        QVERIFY2(keyboard.unplug(), qPrintable(keyboard.errorString()));
        QVERIFY(waiting.wait());
        std::vector<KeyRecord> records;
        int error = 0;
        QVERIFY(QTest::qWaitFor([&] {
            const InputReader::Taken taken = reader.take(id, everything);
            append(records, taken);
            error = taken.error;
            return error != 0;
        }));
        QCOMPARE(error, ENODEV);
        // The kernel lets go of the held key in a frame of its own, which the reader may have
        // read before the node answered ENODEV.
        const std::vector<KeyRecord> released = {KeyRecord::release(KEY_A), KeyRecord::frameEnd(1)};
        QVERIFY(records.empty() || records == released);

        // Nothing follows the error.
        const InputReader::Taken after = reader.take(id, everything);
        QVERIFY(after.records.empty());
        QCOMPARE(after.error, 0);
        QCOMPARE(reader.queuedRecords(id), std::size_t(0));
    }
};

SELVANE_UINPUT_TEST_MAIN(InputReaderKernelTest)
#include "test_inputreader.moc"
