#pragma once

// Emulated evdev nodes for tests, built on umockdev.
//
// In-process use (the code under test runs inside the test binary):
//
//     SELVANE_UMOCKDEV_TEST_MAIN(MyTest)      // instead of QTEST_GUILESS_MAIN; exits 77
//                                             // when umockdev's preload library is missing
//     UmockdevTestbed testbed;                // sets UMOCKDEV_DIR for this process
//     UmockdevDeviceState state;
//     state.keysDown = {KEY_A};               // EVIOCGKEY answer
//     state.ledsOn = {LED_NUML};              // EVIOCGLED answer
//     const QString node = testbed.addDevice(DeviceDescription::keyboard(), state);
//     EventDevice device(node);               // "/dev/input/event0"
//     testbed.pressKey(node, KEY_B);          // EV_KEY + EV_SYN, as one write
//     testbed.waitUntilRead(node, device);    // read: the next takeRecords() has it
//     device.takeRecords();
//     device.setLedOn(LED_CAPSL, true);
//     QVector<input_event> leds = testbed.readEvents(node, 1); // what the code wrote
//
// The test's CTest ENVIRONMENT should hold ${SELVANE_UMOCKDEV_ENVIRONMENT}; without it the
// main macro re-executes the binary with the preload library itself.
//
// Out-of-process use (a helper program owns the testbed, the daemon opens the nodes): keep the
// UmockdevTestbed alive for as long as the client runs (it answers the client's ioctls from a
// worker thread of this process) and start the client with clientEnvironment(), which holds
// LD_PRELOAD and UMOCKDEV_DIR (= rootDir()). Node paths are those returned by addDevice().
//
// One testbed at a time per process: its constructor points UMOCKDEV_DIR at itself and its
// destructor unsets it. umockdev answers the emulated ioctls from a worker thread of its own, so
// neither a GLib main loop nor the Qt event loop has to run for them.
//
// Timing: the nodes are pseudo terminals, so bytes written on one side reach the other side a
// moment later, not during write(). Wait with waitForPendingInput() (towards the code under test)
// or readEvents() (from the code under test) instead of sleeping.

#include "DeviceDescription.h"

#include <QByteArray>
#include <QHash>
#include <QProcessEnvironment>
#include <QString>
#include <QVector>
#include <QtTest>

#include <linux/input.h>

#include <cstdint>
#include <memory>

typedef struct _UMockdevTestbed UMockdevTestbed;

// What an emulated device answers when it is opened and probed.
struct UmockdevDeviceState
{
    QVector<int> keysDown; // keys reported as held by EVIOCGKEY
    // Answers of the later EVIOCGKEY calls, in order (as after a SYN_DROPPED), once keysDown has
    // been answered.
    QVector<QVector<int>> laterKeysDown;
    QVector<int> ledsOn;         // LEDs reported as lit by EVIOCGLED
    bool eventTypesFail = false; // EVIOCGBIT(0, ...) fails instead of answering
    bool ledStateFails = false;  // EVIOCGLED fails instead of answering
    // The major number stat() reports for the node: 13 for an input device; 0 gives the node no
    // device number at all (stat() reports 0:0).
    int deviceMajor = 13;
};

class EventDevice;

class UmockdevTestbed
{
public:
    // The buffer sizes the emulated ioctls answer; umockdev only answers a request whose
    // length matches its record exactly.
    static constexpr int nameLength = 256;
    static constexpr int eventTypeBytes = EV_MAX / 8 + 1;
    static constexpr int keyBytes = KEY_MAX / 8 + 1;
    static constexpr int relativeAxisBytes = REL_MAX / 8 + 1;
    static constexpr int ledBytes = LED_MAX / 8 + 1;

    UmockdevTestbed();
    ~UmockdevTestbed();
    UmockdevTestbed(const UmockdevTestbed&) = delete;
    UmockdevTestbed& operator=(const UmockdevTestbed&) = delete;

    // Full path of umockdev's preload library, empty when it is not installed.
    static QString preloadLibrary();
    // Whether the preload library is loaded into this process.
    static bool isPreloaded();
    // Makes sure this process runs with the preload library: returns when it does, re-executes
    // the program with it otherwise, and exits with 77 (skipped) when it is not available.
    static void requirePreload(int argc, char** argv);

    // The testbed's root directory (the UMOCKDEV_DIR of its clients).
    QString rootDir() const;
    // The calling process's environment plus LD_PRELOAD and UMOCKDEV_DIR for a client process.
    QProcessEnvironment clientEnvironment() const;

    // Creates /dev/input/eventN for the device and returns that path (empty on failure).
    QString addDevice(const DeviceDescription& description, const UmockdevDeviceState& state = {});
    // Removes the node; opening its path fails afterwards.
    void removeDevice(const QString& node);

    // One kernel input_event record (zero time stamp) as bytes.
    static QByteArray eventRecord(int type, int code, int value);

    // Towards the code under test: bytes it reads from the node.
    bool writeBytes(const QString& node, const QByteArray& bytes);
    bool writeEvent(const QString& node, int type, int code, int value);
    bool pressKey(const QString& node, int code);   // value 1, then SYN_REPORT
    bool releaseKey(const QString& node, int code); // value 0, then SYN_REPORT
    bool repeatKey(const QString& node, int code);  // value 2, then SYN_REPORT
    // Waits until at least `bytes` bytes are queued for the code under test's next read().
    // The default is every byte written since the previous wait on this node, for the usual
    // pattern "write, wait, let the code under test read".
    bool waitForPendingInput(const QString& node, int bytes = -1, int timeoutMs = 5000);
    // Waits until the daemon's input reader has read, for `device` (open on this node), every
    // byte written to the node since the previous wait: then the device's next takeRecords()
    // has whatever records they held. The reader reads on a thread of its own, so the bytes do
    // not stay queued for waitForPendingInput() to see.
    bool waitUntilRead(const QString& node, const EventDevice& device, int timeoutMs = 5000);
    // Waits until something written to the node is queued for the code under test, or the time
    // is up, without a warning: for a test whose code under test may have read it already. Then
    // waits (at most readTimeoutMs) until the node is empty: the code under test has read it.
    void waitForDelivery(const QString& node, int timeoutMs);
    static constexpr int readTimeoutMs = 2000;

    // From the code under test: records it wrote to the node (LED events), in order. Waits until
    // `count` records came or the time is up; returns those that came.
    QVector<input_event> readEvents(const QString& node, int count, int timeoutMs = 5000);
    // Writes a record on the code under test's side of the node, as if it had written it. A test
    // that expects the code to write nothing injects one and checks it is the next record read.
    bool injectDeviceSideEvent(const QString& node, int type, int code, int value);

private:
    struct Node
    {
        QString sysPath;
        int masterFd = -1;                // umockdev's end, which it never closes (closeLeftOpen)
        int ptyNumber = -1;               // the pseudo terminal's number, to know the master again
        int probeFd = -1;                 // our own descriptor on the device side, owned here
        int unwaitedBytes = 0;            // written towards the code under test since the last wait
        std::uint64_t readerDevice = 0;   // the device of the last waitUntilRead()
        std::uint64_t readAtLastWait = 0; // what the reader had read of it then
        QByteArray received;              // bytes from the code under test not yet returned
    };

    Node* findNode(const QString& node);
    // Whether `wanted` bytes came to be queued on the node's device side in time.
    static bool waitForQueued(Node& entry, long wanted, int timeoutMs);
    // umockdev keeps a node's pseudo-terminal master open after the device is
    // removed and after the testbed is freed, so that a test that plugs
    // devices again and again would run out of pseudo terminals. The
    // destructor closes them, each unless it is no longer the one the node
    // had. Not before: the code under test may still hold the node, which
    // would then read end-of-file, as no kernel node does.
    static void closeLeftOpen(const Node& entry);
    bool writeAll(int fd, const QByteArray& bytes);
    QString ioctlRecord(const QString& node, const DeviceDescription& description,
                        const UmockdevDeviceState& state) const;

    std::unique_ptr<UMockdevTestbed, void (*)(void*)> testbed;
    QHash<QString, Node> nodes;
    QVector<Node> removedNodes;
    int nextEventNumber = 0;
};

// Test entry for umockdev tests: like QTEST_GUILESS_MAIN, after requirePreload().
#define SELVANE_UMOCKDEV_TEST_MAIN(TestObject)                                                     \
    int main(int argc, char* argv[])                                                               \
    {                                                                                              \
        UmockdevTestbed::requirePreload(argc, argv);                                               \
        QCoreApplication app(argc, argv);                                                          \
        TestObject tc;                                                                             \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&tc, argc, argv);                                                      \
    }
