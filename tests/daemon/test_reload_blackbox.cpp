// SIGHUP on the built daemon: it reads its key configuration file again and
// reopens its log file at the next update, while its devices, their LEDs and
// its D-Bus service carry on untouched.
//
// An emulated keyboard is assigned to station 3 and types the combinations;
// a second one stays unassigned, so its lock LEDs blink. Each command appends
// a word to a file, which is how a run is observed.

#include "DaemonRunner.h"
#include "TestFiles.h"
#include "UmockdevTestbed.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QtTest>

#include <algorithm>
#include <csignal>
#include <linux/input-event-codes.h>
#include <memory>
#include <unistd.h>

namespace {
constexpr int station = 3;
} // namespace

class ReloadBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void changedKeyFileRunsTheNewCombinationAndNoLongerTheOld();
    void deletedKeyFileKeepsTheRunningCombinations();
    void movedLogFileIsFollowedByANewFileAtTheSamePath();
    void hundredReloadsWhileTypingLoseNoCombinationAndNoDescriptor();
    void longLinesRunWholeOrNotAtAllAtReloadAndAtStart();

private:
    // Types Ctrl+F1 to Ctrl+F4 and waits until `expected` commands ran and an
    // update after them is done.
    void typeTheFourCombinations(int expected);
    void writeKeys(const QByteArray& lines);
    void call(const QString& method, const QVariantList& arguments);
    void type(const QList<int>& codes);
    void press(int key);
    void release(int key);
    // Sends SIGHUP and waits until the daemon has read its key file again,
    // or has logged that it kept the running configuration.
    void reload();
    void waitForLog(const QString& message);
    // Lines of the log with this message, of this level, or matching.
    int logCount(const QString& message) const;
    int levelCount(const QString& level) const;
    int matchingLines(const QRegularExpression& line) const;
    QStringList commandsRun() const { return DaemonRunner::readLines(output); }
    int openDescriptors() const;
    QString logText() const { return DaemonRunner::readLines(log).join('\n'); }

    std::unique_ptr<UmockdevTestbed> devices;
    std::unique_ptr<DaemonRunner> runner;
    QDBusConnection platform{QString()};
    QString keys;
    QString output;
    QString log;
    QString keyboard;
    QString blinking;
    pid_t daemon = 0;
    int reloads = 0;
};

void ReloadBlackboxTest::init()
{
    devices = std::make_unique<UmockdevTestbed>();
    runner = std::make_unique<DaemonRunner>();
    QVERIFY(runner->isBusRunning());
    keys = runner->path("keys.conf");
    output = runner->path("commands-run");
    log = runner->defaultLogFile();
    reloads = 0;
    writeKeys("KEY_LEFTCTRL:KEY_F1:echo old >> " + QFile::encodeName(output) + "\n");
    keyboard = devices->addDevice(DeviceDescription::keyboard());
    blinking = devices->addDevice(DeviceDescription::keyboard());
    QVERIFY(!keyboard.isEmpty() && !blinking.isEmpty());

    runner->setExtraEnvironment(
        {{"LD_PRELOAD", UmockdevTestbed::preloadLibrary()}, {"UMOCKDEV_DIR", devices->rootDir()}});
    daemon = runner->startDaemon({"-c", keys}, DaemonRunner::logMessage("Connection established"));
    QVERIFY(daemon > 0);
    platform = QDBusConnection::connectToBus(runner->busAddress(), "platform");
    QVERIFY(platform.isConnected());
    call("deviceAddedToStation", {keyboard, station});
    call("unassignedDeviceAdded", {blinking});
    waitForLog("Adding assigned device " + keyboard);
}

void ReloadBlackboxTest::cleanup()
{
    QDBusConnection::disconnectFromBus("platform");
    if (daemon > 0) {
        QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);
        daemon = 0;
    }
    runner.reset();
    devices.reset();
}

void ReloadBlackboxTest::changedKeyFileRunsTheNewCombinationAndNoLongerTheOld()
{
    type({KEY_LEFTCTRL, KEY_F1});
    QVERIFY(DaemonRunner::waitUntil([&] { return commandsRun() == QStringList{"old"}; }));
    // The blinking keyboard has had its LEDs set by now; what it got so far is
    // of no interest.
    devices->readEvents(blinking, 1 << 20, 1500);
    const int descriptors = openDescriptors();

    writeKeys("KEY_LEFTCTRL:KEY_F2:echo new >> " + QFile::encodeName(output) + "\n");
    reload();
    QCOMPARE(logCount("Parsing config file " + keys), 2);

    // Ctrl+F1 runs nothing any more; Ctrl+F2 runs the new command. A status
    // request afterwards takes one more update, in which a late "old" would
    // have shown up.
    type({KEY_LEFTCTRL, KEY_F1});
    type({KEY_LEFTCTRL, KEY_F2});
    QVERIFY2(DaemonRunner::waitUntil([&] { return commandsRun().size() >= 2; }),
             qPrintable(logText()));
    call("logStatus", {});
    waitForLog("Assigned device: " + keyboard);
    QCOMPARE(commandsRun(), (QStringList{"old", "new"}));

    // Both keyboards stayed open as they were: neither was opened, closed or
    // dropped again, the assigned one had no LED written and the unassigned
    // one goes on blinking.
    QCOMPARE(logCount("Adding assigned device " + keyboard), 1);
    QCOMPARE(logCount("Removing assigned device " + keyboard), 0);
    QVERIFY(!logText().contains("Removing unassigned device"));
    QCOMPARE(openDescriptors(), descriptors);
    QVERIFY(devices->readEvents(keyboard, 1, 200).isEmpty());
    QVERIFY2(devices->readEvents(blinking, 2, 3000).size() == 2,
             "the unassigned keyboard stopped blinking after the reload");
}

void ReloadBlackboxTest::deletedKeyFileKeepsTheRunningCombinations()
{
    QVERIFY(QFile::remove(keys));
    reload();
    QVERIFY(DaemonRunner::waitForLine(
        log, DaemonRunner::logLine("Error", "AssignedDeviceHandler:parseConfigFile",
                                   "Could not open config file " + keys)));
    QVERIFY(DaemonRunner::waitForLine(
        log, DaemonRunner::logLine("Warning", "AssignedDeviceHandler:reloadConfigFile",
                                   "Keeping the running configuration of 1 key sequence(s).")));
    QCOMPARE(logCount("Parsing config file " + keys), 1);

    type({KEY_LEFTCTRL, KEY_F1});
    QVERIFY2(DaemonRunner::waitUntil([&] { return commandsRun() == QStringList{"old"}; }),
             qPrintable(logText()));
}

void ReloadBlackboxTest::movedLogFileIsFollowedByANewFileAtTheSamePath()
{
    const QString moved = log + ".1";
    QVERIFY(QFile::rename(log, moved));
    reload();
    QVERIFY(QFile::exists(log));
    // The old file has the signal; the new one starts with the reopening (the
    // daemon sees its log at the fixed path) and holds what the reading of the
    // key file reported.
    const QString old = DaemonRunner::readLines(moved).join('\n');
    QVERIFY(old.contains("Received signal to reload") && !old.contains("Logfile reopened"));
    const QStringList lines = DaemonRunner::readLines(log);
    QVERIFY2(!lines.isEmpty() &&
                 lines.first().endsWith("] Logfile reopened: /var/log/orvanta-selvane.log"),
             qPrintable(lines.join('\n')));
    QVERIFY(DaemonRunner::waitForLine(log, DaemonRunner::logMessage("Parsed 1 key sequence(s).")));

    call("logStatus", {});
    waitForLog("Assigned device: " + keyboard);
    QVERIFY(!DaemonRunner::readLines(moved).join('\n').contains("Assigned device: "));
}

void ReloadBlackboxTest::hundredReloadsWhileTypingLoseNoCombinationAndNoDescriptor()
{
    type({KEY_LEFTCTRL, KEY_F1});
    QVERIFY(DaemonRunner::waitUntil([&] { return commandsRun().size() == 1; }));
    const int descriptors = openDescriptors();
    // The daemon runs without its data files here, which it reports at start.
    const int complaints = levelCount("Error") + levelCount("Bug");

    // Each SIGHUP comes while Ctrl+F1 is held, so a command waits for its keys
    // to be released across a reload of the file that still has its line:
    // every other time the reload is done before the releases are written.
    for (int i = 0; i < 100; ++i) {
        // A station keeps at most 16 commands waiting behind its running one and drops more:
        // the typing waits while 8 are behind, so that a slow machine drops none.
        QVERIFY(DaemonRunner::waitUntil([&] { return commandsRun().size() + 8 > i; }));
        press(KEY_LEFTCTRL);
        press(KEY_F1);
        if (i % 2 == 0) {
            reload();
        } else {
            // Only until the signal is taken: the reload itself may come
            // before or after the releases are read.
            const int signalled = logCount("Received signal to reload");
            QCOMPARE(kill(daemon, SIGHUP), 0);
            QVERIFY(DaemonRunner::waitUntil(
                [&] { return logCount("Received signal to reload") > signalled; }));
        }
        release(KEY_F1);
        release(KEY_LEFTCTRL);
    }
    QVERIFY2(
        DaemonRunner::waitUntil([&] { return commandsRun().size() >= 101; }, 30000),
        qPrintable(QString::number(commandsRun().size()) + " commands run; log:\n" + logText()));
    call("logStatus", {});
    waitForLog("Assigned device: " + keyboard);
    QCOMPARE(commandsRun().size(), 101);
    QCOMPARE(logCount("Received signal to reload"), 100);
    QCOMPARE(openDescriptors(), descriptors);
    QVERIFY2(levelCount("Error") + levelCount("Bug") == complaints, qPrintable(logText()));
}

void ReloadBlackboxTest::longLinesRunWholeOrNotAtAllAtReloadAndAtStart()
{
    const QByteArray target = " >> " + QFile::encodeName(output) + "\n";
    // 1,300 characters: once read in pieces, its first part ran alone.
    const QByteArray wide(1300 - 25 - target.size(), 'w');
    // 4096 bytes with the line break: the longest line taken.
    const QByteArray widest(4096 - 25 - target.size(), 'f');
    QByteArray lines = "KEY_LEFTCTRL:KEY_F1:echo " + wide + target;
    // A longer line would have run cut, so nothing of it may run.
    lines +=
        "KEY_LEFTCTRL:KEY_F2:echo cut" + target.chopped(1) + "; : " + QByteArray(5000, 'c') + "\n";
    // 1,300 characters too, with a NUL byte after a command that once ran alone.
    const QByteArray nulHead = "KEY_LEFTCTRL:KEY_F3:echo nul" + target.chopped(1) + "; : ";
    const QByteArray nulLine = nulHead + '\0' + QByteArray(1300 - 2 - nulHead.size(), 'n') + "\n";
    QCOMPARE(nulLine.size(), 1300);
    lines += nulLine;
    lines += "KEY_LEFTCTRL:KEY_F4:echo " + widest + target;
    QCOMPARE(lines.indexOf(wide + target) + wide.size() + target.size(), 1300);
    QVERIFY(lines.endsWith("\nKEY_LEFTCTRL:KEY_F4:echo " + widest + target));
    QCOMPARE(25 + widest.size() + target.size(), 4096);
    writeKeys(lines);

    const auto refusals = [&] {
        return matchingLines(DaemonRunner::logLine(
                   "Error", "AssignedDeviceHandler:parseConfigFile",
                   "Line 2 of the configuration file is longer than 4096 bytes.  Ignoring it.")) +
               matchingLines(DaemonRunner::logLine(
                   "Error", "AssignedDeviceHandler:parseConfigFile",
                   "Line 3 of the configuration file contains a NUL byte.  Ignoring it."));
    };
    QCOMPARE(kill(daemon, SIGHUP), 0);
    waitForLog("Parsed 2 key sequence(s).");
    QCOMPARE(refusals(), 2);
    typeTheFourCombinations(2);
    QCOMPARE(commandsRun(), (QStringList{QString::fromLatin1(wide), QString::fromLatin1(widest)}));

    // The same file read at start.
    QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);
    QVERIFY(QFile::remove(output));
    // The log is the first daemon's too: its ready line is there already.
    daemon = runner->startDaemon({"-c", keys}, DaemonRunner::logMessage("Connection established"));
    QVERIFY(daemon > 0);
    QVERIFY(DaemonRunner::waitUntil([&] { return logCount("Connection established") == 2; }));
    call("deviceAddedToStation", {keyboard, station});
    QVERIFY(DaemonRunner::waitUntil(
        [&] { return logCount("Adding assigned device " + keyboard) == 2; }));
    QCOMPARE(refusals(), 4);
    typeTheFourCombinations(2);
    QCOMPARE(commandsRun(), (QStringList{QString::fromLatin1(wide), QString::fromLatin1(widest)}));
}

void ReloadBlackboxTest::typeTheFourCombinations(int expected)
{
    for (int key : {KEY_F1, KEY_F2, KEY_F3, KEY_F4}) {
        type({KEY_LEFTCTRL, key});
    }
    QVERIFY2(DaemonRunner::waitUntil([&] { return commandsRun().size() >= expected; }),
             qPrintable(logText()));
    const int statusLines = logCount("Assigned device: " + keyboard);
    call("logStatus", {});
    QVERIFY(DaemonRunner::waitUntil(
        [&] { return logCount("Assigned device: " + keyboard) > statusLines; }));
}

void ReloadBlackboxTest::writeKeys(const QByteArray& lines)
{
    QVERIFY(writeFile(keys, lines));
}

void ReloadBlackboxTest::call(const QString& method, const QVariantList& arguments)
{
    const QDBusMessage reply = platform.call(DaemonRunner::daemonCall(method, arguments));
    QVERIFY2(reply.type() == QDBusMessage::ReplyMessage, qPrintable(reply.errorMessage()));
}

void ReloadBlackboxTest::type(const QList<int>& codes)
{
    for (int key : codes) {
        press(key);
    }
    for (auto key = codes.crbegin(); key != codes.crend(); ++key) {
        release(*key);
    }
}

void ReloadBlackboxTest::press(int key)
{
    QVERIFY(devices->pressKey(keyboard, key));
}

void ReloadBlackboxTest::release(int key)
{
    QVERIFY(devices->releaseKey(keyboard, key));
}

void ReloadBlackboxTest::reload()
{
    const int done = logCount("Parsed 1 key sequence(s).") +
                     logCount("Keeping the running configuration of 1 key sequence(s).");
    ++reloads;
    QCOMPARE(kill(daemon, SIGHUP), 0);
    QVERIFY2(DaemonRunner::waitUntil([&] {
                 return logCount("Parsed 1 key sequence(s).") +
                            logCount("Keeping the running configuration of 1 key sequence(s).") >
                        done;
             }),
             qPrintable(logText()));
}

void ReloadBlackboxTest::waitForLog(const QString& message)
{
    QVERIFY2(DaemonRunner::waitForLine(log, DaemonRunner::logMessage(message)),
             qPrintable("no \"" + message + "\" in:\n" + logText()));
}

int ReloadBlackboxTest::logCount(const QString& message) const
{
    return matchingLines(DaemonRunner::logMessage(message));
}

int ReloadBlackboxTest::levelCount(const QString& level) const
{
    return matchingLines(QRegularExpression("^\\[[^\\]]+\\] \\[" + level + "\\] "));
}

int ReloadBlackboxTest::matchingLines(const QRegularExpression& line) const
{
    int count = 0;
    for (const QString& text : DaemonRunner::readLines(log)) {
        count += line.match(text).hasMatch() ? 1 : 0;
    }
    return count;
}

int ReloadBlackboxTest::openDescriptors() const
{
    // The daemon holds a command's pidfd until it has seen the command end, which may be a
    // moment after the command's output is written; the count is taken once it holds none.
    // The commands here end at once, so a pidfd still open after the wait was leaked (-1).
    const QDir descriptors(QStringLiteral("/proc/%1/fd").arg(daemon));
    const auto heldCommands = [&] {
        const QStringList links = descriptors.entryList(QDir::NoDotAndDotDot | QDir::System);
        return std::count_if(links.begin(), links.end(), [&](const QString& link) {
            const QByteArray path = QFile::encodeName(descriptors.filePath(link));
            char target[64] = {};
            const ssize_t length = readlink(path.constData(), target, sizeof target - 1);
            return length > 0 && QByteArray(target, int(length)) == "anon_inode:[pidfd]";
        });
    };
    if (!DaemonRunner::waitUntil([&] { return heldCommands() == 0; }, 10000)) {
        return -1;
    }
    return static_cast<int>(descriptors.entryList(QDir::NoDotAndDotDot | QDir::System).size());
}

// Skipped (77) without a private mount namespace, dbus-daemon or umockdev.
int main(int argc, char* argv[])
{
    return runUnlessUnavailable<QCoreApplication, ReloadBlackboxTest>(
        argc, argv, &DaemonRunner::unavailableReasonWithEmulatedInput);
}

#include "test_reload_blackbox.moc"
