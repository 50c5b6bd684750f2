// The built daemon, started as a daemon, reading kernel input devices on its
// own timer: what a real kernel does between two of its ticks (the release of
// held keys when a device goes away, a flood of movement records from a fast
// mouse, input that arrives while a command runs) never costs a command nor
// runs one that nobody completed.
#include "DaemonRunner.h"
#include "PlatformSimulatorProcess.h"
#include "UinputDevice.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QFile>
#include <QtTest>

#include <linux/input-event-codes.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

namespace {
constexpr int combinations = 20;
constexpr int waitForCommandsMs = 90000;

// Moves a mouse back and forth at a fixed rate from a thread of its own until destroyed.
class MouseMover
{
public:
    MouseMover(UinputDevice& mouse, int framesPerSecond)
        : worker([this, &mouse, framesPerSecond] {
              const auto period = std::chrono::microseconds(1000000 / framesPerSecond);
              auto next = std::chrono::steady_clock::now();
              int direction = 1;
              while (!stopping) {
                  mouse.send(EV_REL, REL_X, direction);
                  mouse.send(EV_REL, REL_Y, direction);
                  mouse.sync();
                  direction = -direction;
                  ++frames;
                  next += period;
                  std::this_thread::sleep_until(next);
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

void pause(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
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
