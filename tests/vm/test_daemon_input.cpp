// The built daemon, started as a daemon, reading kernel input devices: what a
// real kernel does between two of its timer ticks (the release of held keys
// when a device goes away, a flood of movement records from a fast mouse,
// input that arrives while a command runs) never costs a command nor runs one
// that nobody completed, and a key is acted on as it arrives, not at the next
// tick.
#include "DaemonRunner.h"
#include "FramePacer.h"
#include "PlatformSimulatorProcess.h"
#include "UinputDevice.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QFile>
#include <QtTest>

#include <linux/input-event-codes.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <memory>
#include <poll.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
constexpr int combinations = 20;
constexpr int waitForCommandsMs = 90000;

// Moves a mouse back and forth at a fixed rate from a thread of its own until destroyed.
class MouseMover
{
public:
    MouseMover(UinputDevice& mouse, int framesPerSecond)
        : worker([this, &mouse, framesPerSecond] {
              FramePacer pacer(framesPerSecond);
              int direction = 1;
              while (!stopping) {
                  mouse.send(EV_REL, REL_X, direction);
                  mouse.send(EV_REL, REL_Y, direction);
                  mouse.sync();
                  direction = -direction;
                  ++frames;
                  pacer.waitForNextFrame();
              }
          })
    {
        clock.start();
    }
    ~MouseMover()
    {
        stopping = true;
        worker.join();
        qInfo("the mouse sent %d movement frames in %lld ms", frames.load(), clock.elapsed());
    }

private:
    std::atomic<bool> stopping{false};
    std::atomic<int> frames{0};
    QElapsedTimer clock;
    std::thread worker;
};

// Keeps the daemon's main thread busy until destroyed: threads of their own call it over the
// bus one call after another, each waiting for its answer. An unknown display's completion
// costs the daemon a round of its update and writes no log line.
class BusFlood
{
public:
    BusFlood(const QString& busAddress, int callers)
    {
        for (int caller = 0; caller < callers; ++caller) {
            workers.emplace_back([this, busAddress, caller] {
                const QString name = QStringLiteral("flood-%1").arg(caller);
                {
                    QDBusConnection bus = QDBusConnection::connectToBus(busAddress, name);
                    while (!stopping) {
                        const QDBusMessage reply =
                            bus.call(DaemonRunner::daemonCall("configurationComplete", {99999}));
                        answered += reply.type() == QDBusMessage::ReplyMessage ? 1 : 0;
                    }
                }
                QDBusConnection::disconnectFromBus(name);
            });
        }
        clock.start();
    }
    ~BusFlood()
    {
        stopping = true;
        for (std::thread& worker : workers) {
            worker.join();
        }
        qInfo("the flood had %d calls answered in %lld ms", answered.load(), clock.elapsed());
    }
    BusFlood(const BusFlood&) = delete;
    BusFlood& operator=(const BusFlood&) = delete;

private:
    std::atomic<bool> stopping{false};
    std::atomic<int> answered{0};
    QElapsedTimer clock;
    std::vector<std::thread> workers;
};

void pause(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Waits, without polling on a timer, until the file has a line equal to
// `line`; false when none came within the time.
bool waitForFileLine(const QString& file, const QString& line, int timeoutMs)
{
    const int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (watch == -1 ||
        inotify_add_watch(watch, QFile::encodeName(file).constData(), IN_MODIFY) == -1) {
        if (watch != -1) {
            close(watch);
        }
        return false;
    }
    QElapsedTimer clock;
    clock.start();
    bool found = false;
    while (!(found = DaemonRunner::readLines(file).contains(line)) && clock.elapsed() < timeoutMs) {
        pollfd changed{watch, POLLIN, 0};
        if (poll(&changed, 1, static_cast<int>(timeoutMs - clock.elapsed())) > 0) {
            char events[4096];
            while (read(watch, events, sizeof events) > 0) {
            }
        }
    }
    close(watch);
    return found;
}
} // namespace

class DaemonInputTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void unplugWithKeysHeldNeverRunsTheCommand();
    void everyTypedCombinationRunsOnce();
    void everyClickRunsOnceWhileTheMouseMoves_data();
    void everyClickRunsOnceWhileTheMouseMoves();
    void combinationsAndClicksRunOnceWhileTheMouseFloods();
    void everyClickRunsOnceAt4000HzWhileTheMainThreadIsBusy();
    void anAssignmentKeyReachesThePlatformWithin20Ms();

private:
    bool assign(const UinputDevice& device, int station);
    bool click(UinputDevice& mouse);
    bool typeCombination(UinputDevice& keyboard);
    // Unplugs the device and waits until the daemon has closed it, so that the next device
    // can get its node.
    bool unplug(UinputDevice& device);
    QString daemonLog() const;
    // Waits until the file has `count` lines, then one more tick of the daemon, and checks
    // that it has exactly that many.
    void expectLines(const QString& file, int count);
    // A station keeps at most 16 commands waiting behind its running one and drops more; on
    // the emulated CPU a command takes longer than a hand takes for the next combination, so
    // the typing waits while `issued` is more than 8 ahead of the lines the files have.
    void waitForBacklog(const QStringList& files, int issued);
    int logCount(const QString& message) const;

    std::unique_ptr<DaemonRunner> runner;
    std::unique_ptr<PlatformSimulatorProcess> simulator;
    QDBusConnection platform{QString()};
    pid_t daemon = 0;
    QString keyOutput;
    QString clickOutput;
    int statusRequests = 0;
};

void DaemonInputTest::initTestCase()
{
    runner = std::make_unique<DaemonRunner>();
    QVERIFY(runner->isBusRunning());
    simulator =
        std::make_unique<PlatformSimulatorProcess>(runner->busAddress(), runner->path("calls"));
    QVERIFY(simulator->isReady());
    platform = QDBusConnection::connectToBus(runner->busAddress(), "platform");
    QVERIFY(platform.isConnected());

    keyOutput = runner->path("keys-run");
    clickOutput = runner->path("clicks-run");
    const QString config = runner->path("keys.conf");
    QFile file(config);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("KEY_LEFTCTRL:KEY_F1:echo key >> " + keyOutput.toUtf8() + "\n");
    file.write("BTN_RIGHT:BTN_LEFT:echo click >> " + clickOutput.toUtf8() + "\n");
    file.close();

    const DaemonRunner::Result start = runner->run({"-c", config});
    QCOMPARE(start.status, 0);
    daemon = runner->waitForDaemon();
    QVERIFY(daemon > 0);
    QVERIFY(simulator->waitForCall("com.orvanta.Assignment.SelvaneStarted"));
}

void DaemonInputTest::cleanupTestCase()
{
    QDBusConnection::disconnectFromBus("platform");
    if (daemon > 0) {
        QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);
    }
}

void DaemonInputTest::init()
{
    QFile::remove(keyOutput);
    QFile::remove(clickOutput);
}

bool DaemonInputTest::assign(const UinputDevice& device, int station)
{
    if (!device.isValid()) {
        qWarning("%s", qPrintable(device.errorString()));
        return false;
    }
    const QString opened = "Opened " + device.devicePath() + " for reading ";
    const int openedBefore = logCount(opened);
    const QDBusMessage reply = platform.call(
        DaemonRunner::daemonCall("deviceAddedToStation", {device.devicePath(), station}));
    if (reply.type() != QDBusMessage::ReplyMessage) {
        qWarning("deviceAddedToStation: %s", qPrintable(reply.errorMessage()));
        return false;
    }
    if (!DaemonRunner::waitUntil([&] { return logCount(opened) > openedBefore; })) {
        qWarning("the daemon did not open %s:\n%s", qPrintable(device.devicePath()),
                 qPrintable(daemonLog()));
        return false;
    }
    return true;
}

// Each step 40 ms apart, as a quick hand clicks.
bool DaemonInputTest::click(UinputDevice& mouse)
{
    for (const auto& [button, down] : {std::pair{BTN_RIGHT, 1}, std::pair{BTN_LEFT, 1},
                                       std::pair{BTN_LEFT, 0}, std::pair{BTN_RIGHT, 0}}) {
        if (!mouse.send(EV_KEY, button, down) || !mouse.sync()) {
            return false;
        }
        pause(40);
    }
    return true;
}

bool DaemonInputTest::typeCombination(UinputDevice& keyboard)
{
    for (const auto& [key, down] : {std::pair{KEY_LEFTCTRL, 1}, std::pair{KEY_F1, 1},
                                    std::pair{KEY_F1, 0}, std::pair{KEY_LEFTCTRL, 0}}) {
        if (!(down ? keyboard.press(key) : keyboard.release(key))) {
            return false;
        }
        pause(30);
    }
    return true;
}

bool DaemonInputTest::unplug(UinputDevice& device)
{
    const QString removed = "Device " + device.devicePath() + " has been removed.  Closing device.";
    const int removedBefore = logCount(removed);
    if (!device.unplug()) {
        qWarning("%s", qPrintable(device.errorString()));
        return false;
    }
    if (!DaemonRunner::waitUntil([&] { return logCount(removed) > removedBefore; })) {
        qWarning("the daemon did not close %s:\n%s", qPrintable(device.devicePath()),
                 qPrintable(daemonLog()));
        return false;
    }
    return true;
}

QString DaemonInputTest::daemonLog() const
{
    return DaemonRunner::readLines(runner->defaultLogFile()).join('\n');
}

void DaemonInputTest::expectLines(const QString& file, int count)
{
    const bool reached = DaemonRunner::waitUntil(
        [&] { return DaemonRunner::readLines(file).size() >= count; }, waitForCommandsMs);
    QVERIFY2(reached,
             qPrintable(QString("%1 of %2 commands ran; the daemon's log:\n%3")
                            .arg(DaemonRunner::readLines(file).size())
                            .arg(count)
                            .arg(DaemonRunner::readLines(runner->defaultLogFile()).join('\n'))));
    // A status request is handled on a later tick than anything typed before it.
    ++statusRequests;
    const QDBusMessage reply = platform.call(DaemonRunner::daemonCall("logStatus"));
    QVERIFY(reply.type() == QDBusMessage::ReplyMessage);
    const QString status = QStringLiteral("There are 0 unassigned device(s) being managed:");
    QVERIFY(DaemonRunner::waitUntil([&] { return logCount(status) >= statusRequests; }));
    QCOMPARE(DaemonRunner::readLines(file).size(), count);
}

void DaemonInputTest::waitForBacklog(const QStringList& files, int issued)
{
    constexpr int mostAhead = 8;
    const auto ran = [&files] {
        int lines = 0;
        for (const QString& file : files) {
            lines += static_cast<int>(DaemonRunner::readLines(file).size());
        }
        return lines;
    };
    QVERIFY2(
        DaemonRunner::waitUntil([&] { return ran() + mostAhead >= issued; }, waitForCommandsMs),
        qPrintable(QString("%1 of %2 commands ran").arg(ran()).arg(issued)));
}

int DaemonInputTest::logCount(const QString& message) const
{
    const QRegularExpression pattern = DaemonRunner::logMessage(message);
    int count = 0;
    for (const QString& line : DaemonRunner::readLines(runner->defaultLogFile())) {
        count += pattern.match(line).hasMatch() ? 1 : 0;
    }
    return count;
}

void DaemonInputTest::unplugWithKeysHeldNeverRunsTheCommand()
{
    for (int i = 0; i < combinations; ++i) {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY(assign(keyboard, 3));
        QVERIFY(keyboard.press(KEY_LEFTCTRL));
        QVERIFY(keyboard.press(KEY_F1));
        // From at once to two ticks later, so that the unplug meets every phase of the tick.
        pause(i * 10);
        QVERIFY(unplug(keyboard));
    }
    expectLines(keyOutput, 0);
}

void DaemonInputTest::everyTypedCombinationRunsOnce()
{
    UinputDevice keyboard(DeviceDescription::keyboard());
    QVERIFY(assign(keyboard, 3));
    for (int i = 0; i < combinations; ++i) {
        waitForBacklog({keyOutput}, i);
        QVERIFY(typeCombination(keyboard));
    }
    expectLines(keyOutput, combinations);
    QVERIFY(unplug(keyboard));
}

void DaemonInputTest::everyClickRunsOnceWhileTheMouseMoves_data()
{
    QTest::addColumn<int>("framesPerSecond");
    QTest::newRow("moving 20 times a second") << 20;
    QTest::newRow("moving 1000 times a second") << 1000;
}

void DaemonInputTest::everyClickRunsOnceWhileTheMouseMoves()
{
    QFETCH(int, framesPerSecond);
    UinputDevice mouse(DeviceDescription::mouse());
    QVERIFY(assign(mouse, 4));
    {
        MouseMover mover(mouse, framesPerSecond);
        for (int i = 0; i < combinations; ++i) {
            waitForBacklog({clickOutput}, i);
            QVERIFY(click(mouse));
        }
        expectLines(clickOutput, combinations);
    }
    // Nothing is left stuck: a quiet click still counts.
    QVERIFY(click(mouse));
    expectLines(clickOutput, combinations + 1);
    QVERIFY(unplug(mouse));
}

void DaemonInputTest::combinationsAndClicksRunOnceWhileTheMouseFloods()
{
    UinputDevice mouse(DeviceDescription::mouse());
    QVERIFY(assign(mouse, 4));
    UinputDevice keyboard(DeviceDescription::keyboard());
    QVERIFY(assign(keyboard, 4));
    {
        MouseMover mover(mouse, 1000);
        for (int i = 0; i < combinations; ++i) {
            waitForBacklog({keyOutput, clickOutput}, 2 * i);
            QVERIFY(typeCombination(keyboard));
            QVERIFY(click(mouse));
        }
        expectLines(keyOutput, combinations);
        expectLines(clickOutput, combinations);
    }
    QVERIFY(click(mouse));
    expectLines(clickOutput, combinations + 1);
    QVERIFY(unplug(mouse));
}

// The devices are drained by a thread of their own: a mouse that fills the kernel's buffer in
// a few milliseconds loses no click while the main thread is kept busy by the bus, ten runs in
// a row.
void DaemonInputTest::everyClickRunsOnceAt4000HzWhileTheMainThreadIsBusy()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers slow the emulated CPU's every thread several-fold: fewer rounds, each
    // with the same demands.
    constexpr int runs = 3;
#else
    constexpr int runs = 10;
#endif
    constexpr int floodingCallers = 3;
    UinputDevice mouse(DeviceDescription::mouse());
    QVERIFY(assign(mouse, 4));
    for (int run = 0; run < runs; ++run) {
        QFile::remove(clickOutput);
        {
            const BusFlood flood(runner->busAddress(), floodingCallers);
            const MouseMover mover(mouse, 4000);
            for (int i = 0; i < combinations; ++i) {
                waitForBacklog({clickOutput}, i);
                QVERIFY(click(mouse));
            }
            expectLines(clickOutput, combinations);
        }
        qInfo("run %d of %d: %d of %d clicks ran their command", run + 1, runs,
              static_cast<int>(DaemonRunner::readLines(clickOutput).size()), combinations);
    }
    QVERIFY(unplug(mouse));
}

// From the key's press on the keyboard to the platform's record of the
// assignment, with the timer's tick anywhere in between: the daemon reads the
// key as it arrives.
void DaemonInputTest::anAssignmentKeyReachesThePlatformWithin20Ms()
{
    constexpr int rounds = 5;
    constexpr qint64 boundUs = 20000;
    const QString calls = runner->path("calls");
    std::vector<qint64> latenciesUs;
    for (int round = 0; round < rounds; ++round) {
        const int display = 60 + round;
        const int station = 2 + round; // F3 to F7
        const QDBusMessage configured =
            platform.call(DaemonRunner::daemonCall("configureKeyboard", {display, station}));
        QCOMPARE(configured.type(), QDBusMessage::ReplyMessage);
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY(keyboard.isValid());
        const QString opened = "Opened " + keyboard.devicePath() + " for reading ";
        const int openedBefore = logCount(opened);
        const QDBusMessage added = platform.call(
            DaemonRunner::daemonCall("unassignedDeviceAdded", {keyboard.devicePath()}));
        QCOMPARE(added.type(), QDBusMessage::ReplyMessage);
        QVERIFY(DaemonRunner::waitUntil([&] { return logCount(opened) > openedBefore; }));
        // A different phase of the 100 ms tick each round.
        pause(100 + round * 23);

        const QString assigned =
            QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 \"KeyboardDevice\"")
                .arg(keyboard.devicePath())
                .arg(display);
        const QString released = "Removing unassigned device " + keyboard.devicePath();
        const int releasedBefore = logCount(released);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(keyboard.press(KEY_F3 + round));
        QVERIFY2(waitForFileLine(calls, assigned, 5000), qPrintable(daemonLog()));
        latenciesUs.push_back(clock.nsecsElapsed() / 1000);
        QVERIFY(keyboard.release(KEY_F3 + round));
        QVERIFY(
            platform.call(DaemonRunner::daemonCall("configurationComplete", {display})).type() ==
            QDBusMessage::ReplyMessage);
        // The claimed keyboard is no longer unassigned; it goes before the next one comes.
        QVERIFY(DaemonRunner::waitUntil([&] { return logCount(released) > releasedBefore; }));
    }
    QStringList shown;
    for (const qint64 latency : latenciesUs) {
        shown.append(QString::number(latency / 1000.0, 'f', 1));
    }
    qInfo("from key press to the platform's record: %s ms", qPrintable(shown.join(", ")));
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    QSKIP("the time is bounded in builds without sanitizers, which slow the daemon several-fold");
#endif
    std::sort(latenciesUs.begin(), latenciesUs.end());
    const qint64 median = latenciesUs.at(rounds / 2);
    QVERIFY2(median <= boundUs, qPrintable(QStringLiteral("median %1 ms").arg(median / 1000.0)));
}

int main(int argc, char** argv)
{
    if (!UinputDevice::isAvailable()) {
        std::fprintf(stderr, "SKIP: /dev/uinput cannot be opened for writing\n");
        return 77;
    }
    QCoreApplication application(argc, argv);
    const QString reason = DaemonRunner::unavailableReason();
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));
        return 77;
    }
    DaemonInputTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_daemon_input.moc"
