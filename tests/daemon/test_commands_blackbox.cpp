// The commands of key combinations on the built daemon: each station has its
// own queue, run one command at a time in the order the combinations were
// released, and the main loop never waits for a command. So while a command
// sleeps, the daemon answers on the bus, claims keyboards for an overlay on an
// Xvfb station and runs the commands of other stations; a station holds at
// most 16 waiting commands; a reload keeps the waiting commands whose lines
// are still in the key file; SIGTERM ends the daemon at once, dropping the
// commands that have not started and leaving the running ones alone.
//
// Emulated keyboards are assigned to stations 3 and 4 and type the
// combinations. Each command appends lines "station word [stamp]" to a file,
// the stamp being bash's own clock ($EPOCHREALTIME, no second program), which
// is how a run and its time are observed.
#include "OverlayTestBed.h"
#include "StationBlackbox.h"
#include "TestFiles.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <linux/input.h>
#include <memory>
#include <unistd.h>

namespace {

constexpr int firstStation = 3;
constexpr int secondStation = 4;

// The bounds the daemon has to keep while a command runs.
constexpr qint64 introspectBoundMs = 1000;
constexpr qint64 claimBoundMs = 2000;
constexpr qint64 otherStationBoundUs = 1000000;
constexpr qint64 exitBoundMs = 1000;

constexpr int waitingLimit = 16;

// A log line of this level with exactly this message, wherever it was written.
QRegularExpression levelMessage(const QString& level, const QString& message)
{
    return QRegularExpression(QStringLiteral(R"(^\[[^\]]+\] \[)") + level +
                              QStringLiteral(R"(\] \[[^\]]+\] )") +
                              QRegularExpression::escape(message) + QLatin1Char('$'));
}

// The parent process named in /proc/<pid>/stat, 0 when there is none.
pid_t parentOf(pid_t pid)
{
    const QByteArray stat = readFile(QStringLiteral("/proc/%1/stat").arg(pid));
    // The command name in parentheses may hold blanks: state and parent follow its ')'.
    const qsizetype end = stat.lastIndexOf(')');
    return end < 0 ? 0 : stat.mid(end + 2).split(' ').value(1).toInt();
}

// The keys of the numbered combinations Ctrl+1 ... Ctrl+0, Ctrl+F1 ... Ctrl+F10.
struct NumberedKey
{
    int code;
    QByteArray name;
};

QVector<NumberedKey> numberedKeys()
{
    QVector<NumberedKey> keys;
    for (int digit = 1; digit <= 10; ++digit) {
        keys.append({KEY_1 + digit - 1, "KEY_" + QByteArray::number(digit % 10)});
    }
    for (int function = 1; function <= 10; ++function) {
        keys.append({KEY_F1 + function - 1, "KEY_F" + QByteArray::number(function)});
    }
    return keys;
}

} // namespace

class CommandsBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void aSleepingCommandHoldsUpNeitherTheBusNorClaimsNorOtherStations();
    void terminationEndsAtOnceAndDropsTheWaitingCommand();
    void hundredReloadsWhileCommandsRunAndWaitLoseAndRepeatNothing();
    void theSeventeenthWaitingCommandIsDropped();
    void aReloadDropsAWaitingCommandWhoseLineIsGone();

private:
    // "KEY_LEFTCTRL:<press>:<command>" with a line break.
    static QByteArray combination(const QByteArray& press, const QByteArray& command);
    // A command that appends "$STATION_ID <word> <stamp>" to the output file.
    QByteArray stamp(const QByteArray& word) const;
    // A command that appends "$STATION_ID <word>" and then waits until the
    // test opens the gate (at most a minute, or until the runner's directory
    // is gone).
    QByteArray gated(const QByteArray& word) const;
    void openGate();
    // Starts the platform simulator and the daemon with this key file,
    // assigns the first keyboard to station 3 and the second to station 4.
    void startDaemon(const QByteArray& keyLines);
    void call(const QString& method, const QVariantList& arguments = {});
    // Holds Ctrl and the key, then lets them go; lastRelease is then the
    // wall-clock time of the last release in microseconds.
    void typeWithCtrl(const QString& keyboard, int key);
    // Two status requests answered: every key typed before has been read.
    void passTicks();
    // Sends SIGHUP; with `waitForReading`, waits until the daemon has read
    // its key file again, otherwise only until it has taken the signal.
    void reload(bool waitForReading);

    QStringList commandsRun() const { return DaemonRunner::readLines(output); }
    // The output lines of the station, without the station.
    QStringList runOf(int station) const;
    // The stamp of the station's line that starts with `word`; -1 when there is none.
    qint64 stampOf(int station, const QString& word) const;
    int logCount(const QRegularExpression& line) const;
    int logCount(const QString& message) const { return blackbox->logCount(message); }
    // How many Info lines of the log start the command (its line break left out).
    int executions(const QByteArray& command) const;

    std::unique_ptr<StationBlackbox> blackbox;
    QString output;
    QString gate;
    QString keyboard3;
    QString keyboard4;
    qint64 lastRelease = 0;
    // What the daemon may leave at its end, ended by the test: the launcher of
    // its commands and a command that outlives it.
    pid_t launcher = 0;
    pid_t runningCommand = 0;
};

void CommandsBlackboxTest::init()
{
    blackbox = std::make_unique<StationBlackbox>();
    output = blackbox->getRunner().path(QStringLiteral("commands-run"));
    gate = blackbox->getRunner().path(QStringLiteral("gate"));
    keyboard3 = blackbox->addKeyboard();
    keyboard4 = blackbox->addKeyboard();
    QVERIFY(!keyboard3.isEmpty() && !keyboard4.isEmpty());
    launcher = 0;
    runningCommand = 0;
}

void CommandsBlackboxTest::cleanup()
{
    if (QTest::currentTestFailed()) {
        // More than an assertion's message holds.
        qInfo("commands run:\n%s\nthe daemon's log ends:\n%s", qPrintable(commandsRun().join('\n')),
              qPrintable(blackbox->logTail()));
    }
    // Gated commands end by themselves once the gate is open.
    openGate();
    blackbox.reset();
    // This process adopts the launcher once the daemon is gone, and the
    // launcher's command once the launcher is gone. A command runs in a
    // process group of its own.
    for (const pid_t pid : {launcher, runningCommand}) {
        if (pid > 0) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            if (parentOf(pid) == getpid()) {
                DaemonRunner::waitForExit(pid);
            }
        }
    }
}

void CommandsBlackboxTest::aSleepingCommandHoldsUpNeitherTheBusNorClaimsNorOtherStations()
{
    XvfbServer display;
    QVERIFY2(display.start(), qPrintable(display.startError()));
    // One connection for the whole test: an Xvfb without clients resets,
    // dropping the daemon's connection if it comes at that moment.
    const XDisplayProbe probe(display.getDisplayName());
    QVERIFY(probe.isConnected());
    const QByteArray slow = "echo \"$STATION_ID slow-start $EPOCHREALTIME\" >> " +
                            QFile::encodeName(output) + "; sleep 8; " + stamp("slow-end");
    const QByteArray quick = stamp("quick");
    const QString free = blackbox->addKeyboard();
    QVERIFY(!free.isEmpty());
    startDaemon(combination("KEY_F1", slow) + combination("KEY_F2", quick));
    call("unassignedDeviceAdded", {free});
    QVERIFY(blackbox->waitForLog("Adding unassigned device " + free));

    typeWithCtrl(keyboard3, KEY_F1);
    QVERIFY2(DaemonRunner::waitUntil([&] { return stampOf(firstStation, "slow-start") > 0; }),
             "station 3's sleeping command did not start");
    // Station 3's second combination, released while its first command sleeps.
    typeWithCtrl(keyboard3, KEY_F2);

    const qint64 introspect = blackbox->introspectMs();
    qInfo("Introspect while station 3's command sleeps: %lld ms", introspect);
    QVERIFY2(
        introspect >= 0 && introspect <= introspectBoundMs,
        qPrintable(QStringLiteral("Introspect took %1 ms (-1: no answer in 5 s)").arg(introspect)));

    // An overlay for a keyboard and the claim of the free one, as the
    // platform asks for it. Station 0's assignment key is F1.
    QElapsedTimer claim;
    claim.start();
    call("configureKeyboard", {display.getDisplayNumber(), 0});
    QVERIFY2(blackbox->waitForLog(
                 QStringLiteral("Creating display configuration on display :%1 on station 0.")
                     .arg(display.getDisplayNumber()),
                 1, claimBoundMs),
             "no display configuration");
    QVERIFY2(DaemonRunner::waitUntil(
                 [&] { return probe.windowsNamed(StationBlackbox::windowName).size() == 1; },
                 claimBoundMs),
             "no overlay window");
    QVERIFY(blackbox->getDevices().pressKey(free, KEY_F1));
    QVERIFY(blackbox->getDevices().releaseKey(free, KEY_F1));
    const QString claimed =
        QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 \"KeyboardDevice\"")
            .arg(free)
            .arg(display.getDisplayNumber());
    QVERIFY2(blackbox->getPlatform().waitForCall(claimed, 2 * claimBoundMs),
             "the free keyboard was not claimed");
    const qint64 claimMs = claim.elapsed();
    qInfo("configureKeyboard to DeviceAssignedAuto: %lld ms", claimMs);
    QVERIFY2(claimMs <= claimBoundMs, qPrintable(QString::number(claimMs)));

    // Station 4 does not wait for station 3.
    typeWithCtrl(keyboard4, KEY_F2);
    const qint64 released = lastRelease;
    QVERIFY2(DaemonRunner::waitUntil([&] { return stampOf(secondStation, "quick") > 0; }),
             "station 4's command did not run");
    const qint64 otherStationUs = stampOf(secondStation, "quick") - released;
    qInfo("station 4's command ran %lld ms after its keys were released", otherStationUs / 1000);
    QVERIFY2(otherStationUs <= otherStationBoundUs, qPrintable(QString::number(otherStationUs)));

    // Station 3's second command runs once its first has ended.
    QVERIFY2(DaemonRunner::waitUntil([&] { return stampOf(firstStation, "quick") > 0; }, 20000),
             "station 3's second command did not run");
    QCOMPARE(runOf(firstStation).size(), 3);
    QVERIFY(runOf(firstStation).at(0).startsWith("slow-start "));
    QVERIFY(runOf(firstStation).at(1).startsWith("slow-end "));
    QVERIFY(runOf(firstStation).at(2).startsWith("quick "));
    QVERIFY(stampOf(firstStation, "quick") >= stampOf(firstStation, "slow-end"));
    // Station 4's command ran during the sleep.
    const QStringList all = commandsRun();
    const auto lineOf = [&](int station, const QString& word) {
        return all.indexOf(QRegularExpression(
            QStringLiteral("^%1 %2 .*").arg(station).arg(QRegularExpression::escape(word))));
    };
    QVERIFY2(lineOf(secondStation, "quick") < lineOf(firstStation, "slow-end"),
             qPrintable(all.join('\n')));
    QCOMPARE(executions(slow), 1);
    QCOMPARE(executions(quick), 2);
}

void CommandsBlackboxTest::terminationEndsAtOnceAndDropsTheWaitingCommand()
{
    // The long command becomes the sleep itself, so it is one process.
    const QByteArray running =
        "echo \"$STATION_ID running $$\" >> " + QFile::encodeName(output) + "; exec sleep 30";
    const QByteArray waiting = stamp("waiting");
    startDaemon(combination("KEY_F1", running) + combination("KEY_F2", waiting));

    typeWithCtrl(keyboard3, KEY_F1);
    QVERIFY2(DaemonRunner::waitUntil([&] { return !runOf(firstStation).isEmpty(); }),
             "the sleeping command did not start");
    const pid_t command = runOf(firstStation).first().section(' ', 1, 1).toInt();
    QVERIFY(command > 0);
    runningCommand = command;
    typeWithCtrl(keyboard3, KEY_F2);
    passTicks();
    QVERIFY(QFile::exists(blackbox->getRunner().pidFile()));

    QElapsedTimer exit;
    exit.start();
    const int status = blackbox->terminateDaemon(10000);
    const qint64 exitMs = exit.elapsed();
    qInfo("SIGTERM to the end of the daemon: %lld ms", exitMs);
    QCOMPARE(status, 0);
    QVERIFY2(exitMs <= exitBoundMs,
             qPrintable(QStringLiteral("the daemon took %1 ms to end").arg(exitMs)));
    QVERIFY(!QFile::exists(blackbox->getRunner().pidFile()));

    QCOMPARE(
        logCount(levelMessage(QStringLiteral("Info"), "Dropping command of station 3 at exit: " +
                                                          QString::fromLatin1(waiting))),
        1);
    QCOMPARE(logCount(QRegularExpression(QStringLiteral("\\] Dropping command of station "))), 1);
    QCOMPARE(executions(waiting), 0);
    QCOMPARE(runOf(firstStation), QStringList{"running " + QString::number(command)});
    // The running command was left alone: it still sleeps.
    const QByteArray state = readFile(QStringLiteral("/proc/%1/stat").arg(command));
    QVERIFY2(!state.isEmpty() && !state.contains(") Z "),
             qPrintable("the running command ended with the daemon: " + state));
}

void CommandsBlackboxTest::hundredReloadsWhileCommandsRunAndWaitLoseAndRepeatNothing()
{
    // Each numbered combination marks its start and its end, 0.1 to 0.3 s apart.
    const QVector<NumberedKey> keys = numberedKeys();
    QByteArray lines;
    for (int number = 0; number < keys.size(); ++number) {
        lines += combination(keys.at(number).name, stamp(QByteArray::number(number) + " start") +
                                                       "; sleep 0." +
                                                       QByteArray::number(1 + number % 3) + "; " +
                                                       stamp(QByteArray::number(number) + " end"));
    }
    startDaemon(lines);

    // A burst of four combinations on each station every 20 reloads: one
    // command runs and three wait while the next reloads come. Every other
    // reload is only signalled, so it may come at any point of the typing.
    int typed = 0;
    for (int i = 0; i < 100; ++i) {
        if (i % 20 == 0) {
            for (int burst = 0; burst < 4; ++burst, ++typed) {
                typeWithCtrl(keyboard3, keys.at(typed).code);
                typeWithCtrl(keyboard4, keys.at(typed).code);
            }
        }
        reload(i % 2 == 0);
    }
    QCOMPARE(typed, static_cast<int>(keys.size()));
    QVERIFY2(DaemonRunner::waitUntil(
                 [&] { return commandsRun().filter(QStringLiteral(" end ")).size() >= 2 * typed; },
                 60000),
             qPrintable(QStringLiteral("%1 commands ended")
                            .arg(commandsRun().filter(QStringLiteral(" end ")).size())));
    passTicks();

    // Per station: every command once, one at a time, in the order typed.
    for (const int station : {firstStation, secondStation}) {
        QStringList expected;
        for (int number = 0; number < typed; ++number) {
            expected << QString::number(number) + " start" << QString::number(number) + " end";
        }
        QStringList run;
        for (const QString& line : runOf(station)) {
            run << line.section(' ', 0, 1);
        }
        QCOMPARE(run, expected);
    }
    QCOMPARE(logCount("Received signal to reload"), 100);
    QCOMPARE(logCount(QRegularExpression(QStringLiteral("\\] Dropping command of station "))), 0);
}

void CommandsBlackboxTest::theSeventeenthWaitingCommandIsDropped()
{
    const QByteArray waiting = stamp("waited");
    startDaemon(combination("KEY_F1", gated("gated")) + combination("KEY_F2", waiting));

    typeWithCtrl(keyboard3, KEY_F1);
    QVERIFY2(DaemonRunner::waitUntil([&] { return !runOf(firstStation).isEmpty(); }),
             "the gated command did not start");
    for (int i = 0; i <= waitingLimit; ++i) {
        typeWithCtrl(keyboard3, KEY_F2);
    }
    const QRegularExpression dropped = levelMessage(
        QStringLiteral("Warning"),
        QStringLiteral("Dropping command of station 3: 16 commands are waiting already"));
    QVERIFY2(DaemonRunner::waitUntil([&] { return logCount(dropped) > 0; }),
             "no Warning for the 17th waiting command");
    passTicks();
    QCOMPARE(logCount(dropped), 1);
    QCOMPARE(executions(waiting), 0);

    openGate();
    QVERIFY2(DaemonRunner::waitUntil(
                 [&] {
                     return runOf(firstStation).filter(QStringLiteral("waited ")).size() >=
                            waitingLimit;
                 },
                 20000),
             "the waiting commands did not run");
    passTicks();
    QCOMPARE(runOf(firstStation).filter(QStringLiteral("waited ")).size(), waitingLimit);
    QCOMPARE(executions(waiting), waitingLimit);
    QCOMPARE(logCount(QRegularExpression(QStringLiteral("\\] Dropping command of station "))), 1);
}

void CommandsBlackboxTest::aReloadDropsAWaitingCommandWhoseLineIsGone()
{
    const QByteArray first = combination("KEY_F1", gated("gated"));
    const QByteArray kept = combination("KEY_F2", stamp("kept"));
    const QByteArray removed = combination("KEY_F3", stamp("removed"));
    startDaemon(first + kept + removed);

    typeWithCtrl(keyboard3, KEY_F1);
    QVERIFY2(DaemonRunner::waitUntil([&] { return !runOf(firstStation).isEmpty(); }),
             "the gated command did not start");
    typeWithCtrl(keyboard3, KEY_F2);
    typeWithCtrl(keyboard3, KEY_F3);
    passTicks();

    QVERIFY(writeFile(blackbox->keyConfigurationFile(), first + kept));
    QCOMPARE(kill(blackbox->getDaemon(), SIGHUP), 0);
    QVERIFY2(blackbox->waitForLog(QStringLiteral("Parsed 2 key sequence(s).")),
             "the key file was not read again");
    openGate();
    QVERIFY2(DaemonRunner::waitUntil([&] { return runOf(firstStation).size() >= 2; }),
             "the kept command did not run");
    passTicks();
    const QStringList run = runOf(firstStation);
    QCOMPARE(run.size(), 2);
    QCOMPARE(run.at(0), QStringLiteral("gated"));
    QVERIFY(run.at(1).startsWith("kept "));
}

QByteArray CommandsBlackboxTest::combination(const QByteArray& press, const QByteArray& command)
{
    return "KEY_LEFTCTRL:" + press + ':' + command + '\n';
}

QByteArray CommandsBlackboxTest::stamp(const QByteArray& word) const
{
    return "echo \"$STATION_ID " + word + " $EPOCHREALTIME\" >> " + QFile::encodeName(output);
}

QByteArray CommandsBlackboxTest::gated(const QByteArray& word) const
{
    const QByteArray gateFile = QFile::encodeName(gate);
    const QByteArray dir = QFile::encodeName(QFileInfo(gate).absolutePath());
    return "echo \"$STATION_ID " + word + "\" >> " + QFile::encodeName(output) +
           "; for i in $(seq 600); do [ -e " + gateFile + " -o ! -d " + dir +
           " ] && break; sleep 0.1; done";
}

void CommandsBlackboxTest::openGate()
{
    if (blackbox) {
        QVERIFY(writeFile(gate, QByteArray()));
    }
}

void CommandsBlackboxTest::startDaemon(const QByteArray& keyLines)
{
    blackbox->setKeyConfiguration(keyLines);
    QVERIFY(blackbox->startPlatform({}));
    QVERIFY2(blackbox->startDaemon(QStringLiteral(SELVANE_BUILT_DATA_DIR)),
             qPrintable(blackbox->logTail()));
    call("deviceAddedToStation", {keyboard3, firstStation});
    call("deviceAddedToStation", {keyboard4, secondStation});
    QVERIFY(blackbox->waitForLog("Adding assigned device " + keyboard3));
    QVERIFY(blackbox->waitForLog("Adding assigned device " + keyboard4));
    QVERIFY(DaemonRunner::waitUntil([&] { return (launcher = blackbox->getLauncher()) > 0; }));
}

void CommandsBlackboxTest::call(const QString& method, const QVariantList& arguments)
{
    const QString error = blackbox->call(method, arguments);
    QVERIFY2(error.isEmpty(), qPrintable(error));
}

void CommandsBlackboxTest::typeWithCtrl(const QString& keyboard, int key)
{
    UmockdevTestbed& devices = blackbox->getDevices();
    QVERIFY(devices.pressKey(keyboard, KEY_LEFTCTRL));
    QVERIFY(devices.pressKey(keyboard, key));
    QVERIFY(devices.releaseKey(keyboard, key));
    QVERIFY(devices.releaseKey(keyboard, KEY_LEFTCTRL));
    lastRelease = QDateTime::currentMSecsSinceEpoch() * 1000;
}

void CommandsBlackboxTest::passTicks()
{
    QVERIFY2(blackbox->passTick() && blackbox->passTick(), "no status answered while commands run");
}

void CommandsBlackboxTest::reload(bool waitForReading)
{
    const QString parsed = QStringLiteral("Parsed %1 key sequence(s).").arg(numberedKeys().size());
    const int readings = logCount(parsed);
    const int signalled = logCount("Received signal to reload");
    QCOMPARE(kill(blackbox->getDaemon(), SIGHUP), 0);
    QVERIFY2(DaemonRunner::waitUntil([&] {
                 return waitForReading ? logCount(parsed) > readings
                                       : logCount("Received signal to reload") > signalled;
             }),
             "the reload was not done");
}

QStringList CommandsBlackboxTest::runOf(int station) const
{
    QStringList run;
    const QString prefix = QString::number(station) + QLatin1Char(' ');
    for (const QString& line : commandsRun()) {
        if (line.startsWith(prefix)) {
            run << line.mid(prefix.size());
        }
    }
    return run;
}

qint64 CommandsBlackboxTest::stampOf(int station, const QString& word) const
{
    for (const QString& line : runOf(station)) {
        if (line.startsWith(word + QLatin1Char(' '))) {
            return StationBlackbox::stampMicroseconds(line.mid(word.size() + 1));
        }
    }
    return -1;
}

int CommandsBlackboxTest::logCount(const QRegularExpression& line) const
{
    int count = 0;
    for (const QString& text : blackbox->log()) {
        count += line.match(text).hasMatch() ? 1 : 0;
    }
    return count;
}

int CommandsBlackboxTest::executions(const QByteArray& command) const
{
    return logCount(
        levelMessage(QStringLiteral("Info"), "Executing command: " + QString::fromLatin1(command)));
}

// Skipped (77) without a private mount namespace, dbus-daemon, umockdev or Xvfb.
SELVANE_STATION_BLACKBOX_TEST_MAIN(CommandsBlackboxTest)

#include "test_commands_blackbox.moc"
