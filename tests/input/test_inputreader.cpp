// The input reader's thread on stand-ins for input devices: stream sockets, which like an evdev
// descriptor hand out whole records when whole records are written, and a pseudo terminal for a
// read that fails. Neither answers EVIOCGKEY; the emulated devices' test covers that.
#include "InputReaderTesting.h"
#include "input/InputReader.h"

#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <map>
#include <set>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace InputReaderTesting;
using Orvanta::OwnedFd;

namespace {

struct SocketPair
{
    OwnedFd test;   // the test writes records here
    OwnedFd device; // handed to the reader
};

SocketPair socketPair()
{
    int fds[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == -1) {
        return {};
    }
    return {OwnedFd(fds[0]), OwnedFd(fds[1])};
}

// Writes all of `bytes`, waiting for room; false when the other end is closed (EPIPE) or
// another error came.
bool sendAll(int fd, const QByteArray& bytes)
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = send(fd, bytes.constData() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent == -1 && errno == EINTR) {
            continue;
        }
        if (sent == -1) {
            return false;
        }
        done += sent;
    }
    return true;
}

// Whether the other end of the socket `fd` is closed.
bool peerClosed(int fd)
{
    const char byte = 0;
    return send(fd, &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT) == -1 && errno == EPIPE;
}

// A thread that writes to test ends of sockets. When a test fails before it joined the thread,
// the sockets are shut down so that the thread ends and is joined.
class Writer
{
public:
    Writer(std::vector<int> socketEnds, std::function<void()> work)
        : fds(std::move(socketEnds)), thread(std::move(work))
    {
    }
    ~Writer()
    {
        if (thread.joinable()) {
            for (int fd : fds) {
                shutdown(fd, SHUT_RDWR);
            }
            thread.join();
        }
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void join() { thread.join(); }

private:
    std::vector<int> fds;
    std::thread thread;
};

std::vector<int> descriptors(const std::vector<OwnedFd>& owned)
{
    std::vector<int> fds;
    for (const OwnedFd& fd : owned) {
        fds.push_back(fd.get());
    }
    return fds;
}

// Each test starts from no key held.
InputReader::DeviceId addDevice(InputReader& reader, OwnedFd fd)
{
    const unsigned char noKeys[KEY_MAX / 8 + 1] = {};
    return reader.add(std::move(fd), noKeys, sizeof noKeys);
}

// A stream of key records that tells its place in the stream by its code and value.
KeyRecord numberedRecord(int index)
{
    return {KeyRecord::Type::KEY, static_cast<std::uint16_t>(1 + index % 700), index % 2};
}

QByteArray numberedRecords(int first, int count)
{
    QByteArray bytes;
    for (int i = first; i < first + count; ++i) {
        const KeyRecord record = numberedRecord(i);
        bytes += eventRecord(EV_KEY, record.code, record.value);
    }
    return bytes;
}

QVector<KeyRecord> numberedRecordList(int count)
{
    QVector<KeyRecord> records;
    for (int i = 0; i < count; ++i) {
        records.append(numberedRecord(i));
    }
    return records;
}

} // namespace

class InputReaderTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void keyRecordsAndTheirFrameEndsArriveInOrder()
    {
        InputReader reader;
        SocketPair pair = socketPair();
        QVERIFY(pair.test.isValid());
        const InputReader::DeviceId id = addDevice(reader, std::move(pair.device));
        QSignalSpy waiting(&reader, &InputReader::recordsWaiting);

        QVERIFY(sendAll(pair.test.get(), eventRecord(EV_MSC, MSC_SCAN, 0x70004) +
                                             keyFrame(KEY_A, 1) + keyFrame(KEY_B, 1)));
        // The kernel's own frame, as when it lets go of every key of a device that goes away.
        QVERIFY(sendAll(pair.test.get(), eventRecord(EV_KEY, KEY_B, 0) +
                                             eventRecord(EV_KEY, KEY_A, 0) +
                                             eventRecord(EV_SYN, SYN_REPORT, 1)));
        QVERIFY(waiting.wait());
        QCOMPARE(waiting.first().first().value<InputReader::DeviceId>(), id);
        QCOMPARE(takeRecords(reader, id, 7),
                 QVector<KeyRecord>({KeyRecord::press(KEY_A), KeyRecord::frameEnd(),
                                     KeyRecord::press(KEY_B), KeyRecord::frameEnd(),
                                     KeyRecord::release(KEY_B), KeyRecord::release(KEY_A),
                                     KeyRecord::frameEnd(1)}));
    }

    void movementAndAutoRepeatQueueNothing()
    {
        InputReader reader;
        SocketPair pair = socketPair();
        QVERIFY(pair.test.isValid());
        const InputReader::DeviceId id = addDevice(reader, std::move(pair.device));
        QSignalSpy waiting(&reader, &InputReader::recordsWaiting);

        for (int i = 0; i < 1000; ++i) {
            QVERIFY(sendAll(pair.test.get(), eventRecord(EV_REL, REL_X, 1) +
                                                 eventRecord(EV_REL, REL_Y, -1) +
                                                 eventRecord(EV_SYN, SYN_REPORT, 0)));
        }
        QVERIFY(sendAll(pair.test.get(), keyFrame(KEY_A, 2) + eventRecord(EV_LED, LED_NUML, 1)));
        // The button comes after everything above, on the same stream.
        QVERIFY(sendAll(pair.test.get(), keyFrame(BTN_LEFT, 1)));
        QVERIFY(waiting.wait());
        QCOMPARE(takeRecords(reader, id, 2),
                 QVector<KeyRecord>({KeyRecord::press(BTN_LEFT), KeyRecord::frameEnd()}));
        QCOMPARE(waiting.size(), 1);
    }

    void recordsAfterADropAreDiscardedUntilTheFrameEnds()
    {
        InputReader reader;
        SocketPair pair = socketPair();
        QVERIFY(pair.test.isValid());
        const InputReader::DeviceId id = addDevice(reader, std::move(pair.device));

        // A socket has no key state to ask for, so nothing replaces the broken frame.
        QVERIFY(sendAll(pair.test.get(), eventRecord(EV_SYN, SYN_DROPPED, 0) +
                                             eventRecord(EV_KEY, KEY_D, 1) +
                                             eventRecord(EV_SYN, SYN_REPORT, 0)));
        QVERIFY(sendAll(pair.test.get(), keyFrame(KEY_B, 1)));
        QCOMPARE(takeRecords(reader, id, 2),
                 QVector<KeyRecord>({KeyRecord::press(KEY_B), KeyRecord::frameEnd()}));
        QCOMPARE(reader.queuedRecords(id), std::size_t(0));
    }

    void waitingRecordsAreToldOfOnceUntilTheQueueIsEmptied()
    {
        InputReader reader;
        SocketPair pair = socketPair();
        QVERIFY(pair.test.isValid());
        const InputReader::DeviceId id = addDevice(reader, std::move(pair.device));
        QSignalSpy waiting(&reader, &InputReader::recordsWaiting);

        for (int key = KEY_1; key <= KEY_3; ++key) {
            QVERIFY(sendAll(pair.test.get(), keyFrame(key, 1)));
        }
        QVERIFY(QTest::qWaitFor([&] { return reader.queuedRecords(id) == 6; }));
        QVERIFY(QTest::qWaitFor([&] { return waiting.size() == 1; }));

        InputReader::Taken taken = reader.take(id, 2);
        QCOMPARE(taken.records.size(), std::size_t(2));
        QVERIFY(taken.more);
        QCOMPARE(taken.error, 0);
        QVERIFY(sendAll(pair.test.get(), keyFrame(KEY_4, 1)));
        QVERIFY(QTest::qWaitFor([&] { return reader.queuedRecords(id) == 6; }));
        // The records that came while others waited are not told of again; a marker device's
        // signal shows that the reader's wake-ups have been handled meanwhile.
        SocketPair marker = socketPair();
        const InputReader::DeviceId markerId = addDevice(reader, std::move(marker.device));
        QVERIFY(sendAll(marker.test.get(), keyFrame(KEY_Z, 1)));
        QVERIFY(QTest::qWaitFor([&] { return waiting.size() == 2; }));
        QCOMPARE(waiting.last().first().value<InputReader::DeviceId>(), markerId);

        taken = reader.take(id, everything);
        QCOMPARE(taken.records.size(), std::size_t(6));
        QVERIFY(!taken.more);
        QVERIFY(sendAll(pair.test.get(), keyFrame(KEY_5, 1)));
        QVERIFY(waiting.wait());
        QCOMPARE(waiting.last().first().value<InputReader::DeviceId>(), id);
        QCOMPARE(waiting.size(), 3);
    }

    void aFailedReadComesAfterTheRecordsBeforeIt()
    {
        InputReader reader;
        SocketPair pair = socketPair();
        QVERIFY(pair.test.isValid());
        const InputReader::DeviceId id = addDevice(reader, std::move(pair.device));
        QSignalSpy waiting(&reader, &InputReader::recordsWaiting);

        QVERIFY(sendAll(pair.test.get(), keyFrame(KEY_A, 1) + keyFrame(KEY_A, 0)));
        QVERIFY(waiting.wait());
        // The end of the stream reads as nothing at all, less than a record.
        pair.test.reset();
        QVERIFY(waiting.wait());
        QCOMPARE(waiting.size(), 2);

        const QVector<KeyRecord> expected = {KeyRecord::press(KEY_A), KeyRecord::frameEnd(),
                                             KeyRecord::release(KEY_A), KeyRecord::frameEnd()};
        for (int i = 0; i < expected.size(); ++i) {
            const InputReader::Taken taken = reader.take(id, 1);
            QCOMPARE(taken.records.size(), std::size_t(1));
            QCOMPARE(taken.records.front(), expected[i]);
            QCOMPARE(taken.error, i + 1 < expected.size() ? 0 : InputReader::shortRead);
        }
        // Reading goes on after an error other than ENODEV: the end of the stream again.
        QVERIFY(waiting.wait());
        const InputReader::Taken again = reader.take(id, everything);
        QVERIFY(again.records.empty());
        QCOMPARE(again.error, InputReader::shortRead);
    }

    void theErrnoOfAFailedReadIsGiven()
    {
        InputReader reader;
        OwnedFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        QVERIFY(terminal.isValid());
        QVERIFY(grantpt(terminal.get()) == 0 && unlockpt(terminal.get()) == 0);
        OwnedFd other(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
        QVERIFY(other.isValid());
        termios raw{};
        QVERIFY(tcgetattr(other.get(), &raw) == 0);
        cfmakeraw(&raw);
        QVERIFY(tcsetattr(other.get(), TCSANOW, &raw) == 0);
        const InputReader::DeviceId id = addDevice(reader, std::move(terminal));
        QSignalSpy waiting(&reader, &InputReader::recordsWaiting);

        const QByteArray frame = keyFrame(KEY_Q, 1);
        QCOMPARE(write(other.get(), frame.constData(), frame.size()), ssize_t(frame.size()));
        QVERIFY(waiting.wait());
        QCOMPARE(reader.queuedRecords(id), std::size_t(2));
        // A pseudo terminal's master fails its reads once the other side is closed.
        other.reset();
        QVERIFY(QTest::qWaitFor([&] { return waiting.size() == 2; }));
        const InputReader::Taken taken = reader.take(id, everything);
        QCOMPARE(taken.records.size(), std::size_t(2));
        QCOMPARE(taken.error, EIO);
    }

    void aFullQueueStopsTheReadingUntilRecordsAreTaken()
    {
        InputReader reader;
        SocketPair pair = socketPair();
        QVERIFY(pair.test.isValid());
        const InputReader::DeviceId id = addDevice(reader, std::move(pair.device));

        // More than three queues' worth, more than the socket holds: the writer waits for the
        // reader, which waits for the test.
        constexpr int chunk = 64;
        constexpr int total = 200 * chunk;
        std::atomic<bool> written{false};
        Writer writer({pair.test.get()}, [&, fd = pair.test.get()] {
            for (int first = 0; first < total; first += chunk) {
                if (!sendAll(fd, numberedRecords(first, chunk))) {
                    return;
                }
            }
            written = true;
        });

        std::size_t mostQueued = 0;
        auto watchQueue = [&](std::size_t wanted) {
            return QTest::qWaitFor([&] {
                mostQueued = std::max(mostQueued, reader.queuedRecords(id));
                return reader.queuedRecords(id) == wanted;
            });
        };
        QVERIFY(watchQueue(InputReader::maxQueuedRecords));
        QVERIFY(!written);
        QVector<KeyRecord> records;
        InputReader::Taken taken = reader.take(id, 100);
        records.append(QVector<KeyRecord>(taken.records.begin(), taken.records.end()));
        // Reading goes on, up to the bound again.
        QVERIFY(watchQueue(InputReader::maxQueuedRecords));
        QVERIFY(QTest::qWaitFor(
            [&] {
                mostQueued = std::max(mostQueued, reader.queuedRecords(id));
                taken = reader.take(id, 1000);
                records.append(QVector<KeyRecord>(taken.records.begin(), taken.records.end()));
                return records.size() >= total;
            },
            20000));
        writer.join();
        QVERIFY(written);
        QVERIFY(mostQueued <= InputReader::maxQueuedRecords);
        QCOMPARE(records, numberedRecordList(total));
    }

    void removedDevicesAreClosedAndToldOfNoMore()
    {
        InputReader reader;
        constexpr int deviceCount = 8;
        std::vector<OwnedFd> testEnds;
        std::vector<InputReader::DeviceId> ids;
        for (int i = 0; i < deviceCount; ++i) {
            SocketPair pair = socketPair();
            QVERIFY(pair.test.isValid());
            testEnds.push_back(std::move(pair.test));
            ids.push_back(addDevice(reader, std::move(pair.device)));
        }
        std::set<InputReader::DeviceId> removed;
        bool toldOfRemoved = false;
        connect(&reader, &InputReader::recordsWaiting, this,
                [&](InputReader::DeviceId id) { toldOfRemoved |= removed.count(id) > 0; });

        // Every device gets records until it is closed.
        std::vector<int> closedEnds;
        Writer writer(descriptors(testEnds), [&] {
            std::set<int> open;
            for (const OwnedFd& fd : testEnds) {
                open.insert(fd.get());
            }
            for (int first = 0; !open.empty(); first += 64) {
                for (auto fd = open.begin(); fd != open.end();) {
                    if (sendAll(*fd, numberedRecords(first, 64))) {
                        ++fd;
                    } else {
                        closedEnds.push_back(*fd);
                        fd = open.erase(fd);
                    }
                }
            }
        });

        for (int i = 0; i < deviceCount; ++i) {
            QVERIFY(!takeRecords(reader, ids[i], 1000).isEmpty());
            // Taken by the others meanwhile, so that none of them waits with a full queue.
            for (int other = i + 1; other < deviceCount; ++other) {
                reader.take(ids[other], everything);
            }
            reader.remove(ids[i]);
            removed.insert(ids[i]);
            QVERIFY(peerClosed(testEnds[i].get()));
            QCOMPARE(reader.queuedRecords(ids[i]), std::size_t(0));
            const InputReader::Taken taken = reader.take(ids[i], everything);
            QVERIFY(taken.records.empty());
            QCOMPARE(taken.error, 0);
        }
        writer.join();
        QCOMPARE(closedEnds.size(), std::size_t(deviceCount));
        QCoreApplication::processEvents();
        QVERIFY(!toldOfRemoved);
    }

    void manyDevicesAreReadSideBySide()
    {
        InputReader reader;
        constexpr int deviceCount = 64;
        constexpr int frames = 50;
        std::vector<OwnedFd> testEnds;
        std::map<InputReader::DeviceId, QVector<KeyRecord>> received;
        for (int i = 0; i < deviceCount; ++i) {
            SocketPair pair = socketPair();
            QVERIFY(pair.test.isValid());
            testEnds.push_back(std::move(pair.test));
            received[addDevice(reader, std::move(pair.device))];
        }
        connect(&reader, &InputReader::recordsWaiting, this, [&](InputReader::DeviceId id) {
            InputReader::Taken taken = reader.take(id, everything);
            received[id].append(QVector<KeyRecord>(taken.records.begin(), taken.records.end()));
        });

        Writer writer(descriptors(testEnds), [&] {
            for (int frame = 0; frame < frames; ++frame) {
                for (const OwnedFd& fd : testEnds) {
                    sendAll(fd.get(), keyFrame(KEY_1 + frame, frame % 2));
                }
            }
        });
        QVector<KeyRecord> expected;
        for (int frame = 0; frame < frames; ++frame) {
            expected.append(
                {KeyRecord::Type::KEY, static_cast<std::uint16_t>(KEY_1 + frame), frame % 2});
            expected.append(KeyRecord::frameEnd());
        }
        const bool complete = QTest::qWaitFor([&] {
            for (const auto& device : received) {
                if (device.second.size() < expected.size()) {
                    return false;
                }
            }
            return true;
        });
        writer.join();
        QVERIFY(complete);
        for (const auto& device : received) {
            QCOMPARE(device.second, expected);
        }
    }

    void idsAreNeverReused()
    {
        InputReader reader;
        std::set<InputReader::DeviceId> ids;
        for (int i = 0; i < 5; ++i) {
            SocketPair pair = socketPair();
            const InputReader::DeviceId id = addDevice(reader, std::move(pair.device));
            QVERIFY(ids.insert(id).second);
            reader.remove(id);
        }
    }

    void destroyingTheReaderClosesEveryDescriptor()
    {
        std::vector<OwnedFd> testEnds;
        {
            InputReader reader;
            InputReader::DeviceId first = 0;
            for (int i = 0; i < 3; ++i) {
                SocketPair pair = socketPair();
                testEnds.push_back(std::move(pair.test));
                const InputReader::DeviceId id = addDevice(reader, std::move(pair.device));
                first = first ? first : id;
            }
            QVERIFY(sendAll(testEnds[0].get(), keyFrame(KEY_A, 1)));
            QVERIFY(QTest::qWaitFor([&] { return reader.queuedRecords(first) == 2; }));
        }
        for (const OwnedFd& fd : testEnds) {
            QVERIFY(peerClosed(fd.get()));
        }
    }

    // The process's reader stops at exit, with its devices still added.
    void theSharedReaderServesTheWholeProcess()
    {
        InputReader& reader = InputReader::shared();
        QCOMPARE(&InputReader::shared(), &reader);
        SocketPair pair = socketPair();
        const InputReader::DeviceId id = addDevice(reader, std::move(pair.device));
        QVERIFY(sendAll(pair.test.get(), keyFrame(KEY_A, 1)));
        QCOMPARE(takeRecords(reader, id, 2),
                 QVector<KeyRecord>({KeyRecord::press(KEY_A), KeyRecord::frameEnd()}));
        SocketPair kept = socketPair();
        addDevice(reader, std::move(kept.device));
        reader.remove(id);
        QVERIFY(peerClosed(pair.test.get()));
    }
};

QTEST_GUILESS_MAIN(InputReaderTest)
#include "test_inputreader.moc"
