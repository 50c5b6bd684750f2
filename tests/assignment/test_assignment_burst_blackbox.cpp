// The built daemon under a flood of assignment calls that lead nowhere:
// unassigned devices that do not exist and overlays for displays without a
// server. It stays responsive (the first job still runs its commands at once)
// and its memory stays flat from one flood to the next.
#include "DaemonRunner.h"
#include "EmulatedInput.h"
#include "PlatformSimulatorProcess.h"
#include "TestFiles.h"
#include "UmockdevTestbed.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDir>
#include <QtTest>

#include <algorithm>
#include <csignal>
#include <memory>

namespace {

constexpr int devicesPerBurst = 1000;
constexpr int displaysPerBurst = 48;
// First display number of the flood's overlays; no server listens there.
constexpr int firstDisplay = 400;
constexpr int floods = 6;
// Resident memory grows in steps now and then: the heap keeps the high-water
// mark of the largest D-Bus queue and of the overlay threads that ran at once,
// and that peak depends on timing. A leak grows with every flood instead, so
// the typical (median) growth per flood after the second one must stay below
// what a leak of one device per call (a thousand per flood) or of one overlay
// per call would cost, and the steps together stay bounded.
constexpr qint64 medianGrowthPerFloodKiB = 256;
constexpr qint64 totalGrowthKiB = 3072;

int openDescriptors(pid_t pid)
{
    return static_cast<int>(QDir(QStringLiteral("/proc/%1/fd").arg(pid))
                                .entryList(QDir::NoDotAndDotDot | QDir::System)
                                .size());
}

QString lastLines(const QString& fileName)
{
    const QStringList lines = DaemonRunner::readLines(fileName);
    return lines.mid(qMax(0, static_cast<int>(lines.size()) - 20)).join('\n');
}

} // namespace

class AssignmentBurstBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void floodsLeaveTheDaemonResponsiveAndItsMemoryFlat()
    {
        DaemonRunner runner;
        QVERIFY(runner.isBusRunning());
        const PlatformSimulatorProcess simulator(runner.busAddress(), runner.path("calls"));
        QVERIFY(simulator.isReady());
        platform = QDBusConnection::connectToBus(runner.busAddress(), "platform");
        QVERIFY(platform.isConnected());
        EmulatedInput input(SELVANE_EMULATED_INPUT, 1);
        QCOMPARE(input.nodes.size(), 1);

        const QString output = runner.path("commands-run");
        const QString config = runner.path("keys.conf");
        QVERIFY(writeFile(config, "KEY_LEFTCTRL:KEY_F1:echo ran >> " + output.toUtf8() + "\n"));
        runner.setExtraEnvironment(input.environment);
        const DaemonRunner::Result start = runner.run({"-c", config});
        QCOMPARE(start.status, 0);
        const pid_t daemon = runner.waitForDaemon();
        QVERIFY(daemon > 0);
        QVERIFY(simulator.waitForCall("com.orvanta.Assignment.SelvaneStarted"));
        call("deviceAddedToStation", {input.nodes.first(), 1});
        QVERIFY(DaemonRunner::waitForLine(
            runner.defaultLogFile(),
            DaemonRunner::logMessage("Adding assigned device " + input.nodes.first())));

        QList<qint64> resident;
        QList<int> descriptors;
        for (int burst = 1; burst <= floods; ++burst) {
            flood();
            // The first job answers at once, between the flood's ticks.
            QVERIFY(input.type(0, {"KEY_LEFTCTRL", "KEY_F1"}));
            QVERIFY2(DaemonRunner::waitUntil(
                         [&] { return DaemonRunner::readLines(output).size() == burst; }, 5000),
                     qPrintable(QString("burst %1: the command did not run; the log ends:\n%2")
                                    .arg(burst)
                                    .arg(lastLines(runner.defaultLogFile()))));
            // Every overlay of the flood was made, and is gone again.
            const QStringList lines = DaemonRunner::readLines(runner.defaultLogFile());
            QCOMPARE(lines
                         .filter(DaemonRunner::logMessage(
                             QStringLiteral("Creating display configuration on "
                                            "display :%1 on station %2.")
                                 .arg(firstDisplay + displaysPerBurst - 1)
                                 .arg(displaysPerBurst - 1)))
                         .size(),
                     burst);
            call("logStatus");
            QVERIFY(DaemonRunner::waitUntil([&] {
                return DaemonRunner::readLines(runner.defaultLogFile())
                           .filter(DaemonRunner::logMessage(
                               "There are 0 display configuration(s) active:"))
                           .size() == burst;
            }));
            resident.append(DaemonRunner::residentKiB(daemon));
            descriptors.append(openDescriptors(daemon));
        }
        qInfo() << "resident memory after each flood (KiB):" << resident;
#ifndef __SANITIZE_ADDRESS__
        // AddressSanitizer's allocator keeps a stack trace of every allocation
        // site it has seen and its own caches, so resident memory grows there
        // without a leak; LeakSanitizer checks the daemon for leaks at exit.
        QVERIFY(
            std::all_of(resident.cbegin(), resident.cend(), [](qint64 kiB) { return kiB > 0; }));
        QList<qint64> growth;
        for (int i = 2; i < floods; ++i) {
            growth.append(resident[i] - resident[i - 1]);
        }
        std::sort(growth.begin(), growth.end());
        const qint64 medianGrowth = (growth[growth.size() / 2 - 1] + growth[growth.size() / 2]) / 2;
        QVERIFY2(medianGrowth <= medianGrowthPerFloodKiB,
                 qPrintable(QString("grew by %1 KiB per flood").arg(medianGrowth)));
        QVERIFY2(resident.last() - resident[1] <= totalGrowthKiB,
                 qPrintable(QString("grew by %1 KiB").arg(resident.last() - resident[1])));
#endif
        // Nothing of the floods stays open: no device, no X connection.
        QCOMPARE(descriptors.last(), descriptors[0]);
        QVERIFY(kill(daemon, 0) == 0);

        QDBusConnection::disconnectFromBus("platform");
        kill(daemon, SIGTERM);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    }

private:
    void call(const QString& method, const QVariantList& arguments = {})
    {
        const QDBusMessage reply = platform.call(DaemonRunner::daemonCall(method, arguments));
        QVERIFY2(reply.type() == QDBusMessage::ReplyMessage, qPrintable(reply.errorMessage()));
    }

    // A thousand devices that cannot be opened, added and removed, and 48
    // overlays on displays without a server, opened and completed.
    void flood()
    {
        QList<QDBusPendingCall> pending;
        const auto send = [&](const QString& method, const QVariantList& arguments) {
            pending.append(platform.asyncCall(DaemonRunner::daemonCall(method, arguments)));
        };
        for (int i = 0; i < devicesPerBurst; ++i) {
            // Outside /dev: umockdev's preload library keeps a fixed-size table
            // of the descriptors it has seen under /dev and aborts the process
            // once a thousand failed opens there have filled it.
            const QString path = QStringLiteral("/run/missing/event%1").arg(i);
            send("unassignedDeviceAdded", {path});
            send("unassignedDeviceRemoved", {path});
        }
        for (int i = 0; i < displaysPerBurst; ++i) {
            send("configureKeyboard", {firstDisplay + i, i});
        }
        for (int i = 0; i < displaysPerBurst; ++i) {
            send("configurationComplete", {firstDisplay + i});
        }
        QVERIFY(DaemonRunner::waitUntil([&] {
            for (const QDBusPendingCall& call : pending) {
                if (!call.isFinished()) {
                    return false;
                }
            }
            return true;
        }));
    }

    QDBusConnection platform{QString()};
};

// Skipped (77) without a private mount namespace, dbus-daemon or umockdev.
int main(int argc, char* argv[])
{
    return runUnlessUnavailable<QCoreApplication, AssignmentBurstBlackboxTest>(
        argc, argv, &DaemonRunner::unavailableReasonWithEmulatedInput);
}

#include "test_assignment_burst_blackbox.moc"
