#include "DaemonRunner.h"
#include "PackageChecks.h"
#include "ScratchSystem.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

namespace {

const QString packageName = QStringLiteral("orvanta-selvane");
const QString account = QStringLiteral(SELVANE_USER);
const QString installedLog = QStringLiteral(SELVANE_LOG);
const QString pidFile = QStringLiteral(SELVANE_PID_FILE);
// The link deb-systemd-helper makes for the unit's WantedBy=multi-user.target,
// and its record of having made it.
const QString enablementLink =
    QStringLiteral("/etc/systemd/system/multi-user.target.wants/orvanta-selvane.service");
const QString enablementRecord = QStringLiteral(
    "/var/lib/systemd/deb-systemd-helper-enabled/multi-user.target.wants/orvanta-selvane.service");

// The fixed paths the package must hold, as packaging/ lists them.
QStringList expectedFiles()
{
    QStringList files = QString::fromUtf8(readFile(QStringLiteral(SELVANE_PACKAGE_FILES)))
                            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    files.sort();
    return files;
}

// The lines of the daemon's log with the level Error or Bug.
QStringList errorLines(const QString& log)
{
    return DaemonRunner::readLines(log).filter(
        QRegularExpression(QStringLiteral(R"(^\[[^\]]+\] \[(Error|Bug)\] )")));
}

// The account's uid as the system sees it now, -1 when there is no such
// account.
int accountUid()
{
    return ServiceAccount::uid(account);
}

// setpriv's arguments that run the command as the account.
QStringList asAccount(const QStringList& command)
{
    return ServiceAccount::asAccount(account, command);
}

// Runs the installed orvanta-selvane as the account on the bus and returns its
// exit status, -1 when it did not end in time. Its output, and that of the
// daemon it leaves behind, goes to the file: a pipe would close under the
// daemon once the test stopped reading it.
int runInstalledDaemonAsAccount(const QStringList& arguments, const QString& busAddress,
                                const QString& outputFile)
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardOutputFile(outputFile, QIODevice::Append);
    process.start(QStringLiteral("setpriv"),
                  asAccount(QStringList{QStringLiteral("DBUS_SESSION_BUS_ADDRESS=") + busAddress,
                                        QStringLiteral(SELVANE_INSTALLED_BINARY)} +
                            arguments));
    if (!process.waitForFinished(DaemonRunner::defaultTimeoutMs)) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

} // namespace

// Builds the Debian package from this build tree with cpack, checks it, runs
// the daemon it installs, and installs, removes and purges it with dpkg.
class DebianPackageTest : public PackageTest
{
    Q_OBJECT

public:
    DebianPackageTest() : PackageTest(packageName, QStringLiteral(SELVANE_INSTALLED_BINARY)) {}

private Q_SLOTS:
    void theControlFieldsNameThePackageAndItsDependencies()
    {
        const ToolRun fields =
            ToolRun::run(QStringLiteral("dpkg-deb"),
                         {QStringLiteral("--field"), package, QStringLiteral("Package"),
                          QStringLiteral("Depends"), QStringLiteral("Section")});
        QVERIFY2(fields.status == 0, fields.describe());
        const QString control = QString::fromUtf8(fields.standardOutput);
        QVERIFY2(control.contains(QStringLiteral("Package: ") + packageName + '\n'),
                 qPrintable(control));
        QVERIFY2(control.contains(QStringLiteral("Section: admin\n")), qPrintable(control));
        // The font is a link into fonts-dejavu-core; the libraries' packages
        // are computed from the binary (dpkg-shlibdeps).
        const QRegularExpression depends(QStringLiteral("^Depends: (.*)$"),
                                         QRegularExpression::MultilineOption);
        const QStringList dependencies = depends.match(control).captured(1).split(
            QRegularExpression(QStringLiteral(",\\s*")), Qt::SkipEmptyParts);
        QVERIFY2(dependencies.contains(QStringLiteral("fonts-dejavu-core")), qPrintable(control));
        // postinst runs systemd-sysusers.
        QVERIFY2(dependencies.contains(
                     QStringLiteral("systemd | systemd-standalone-sysusers | systemd-sysusers")),
                 qPrintable(control));
        for (const QString& library : {QStringLiteral("libqt6core6"), QStringLiteral("libqt6dbus6"),
                                       QStringLiteral("libqt6gui6"), QStringLiteral("libxcb1")}) {
            QVERIFY2(
                control.contains(QRegularExpression(QStringLiteral("\\b%1 \\(").arg(library))) ||
                    dependencies.contains(library),
                qPrintable(library + QStringLiteral(" missing from: ") + control));
        }
    }

    void thePackageHoldsEveryFileAtItsFixedPath()
    {
        QList<PackageChecks::Entry> entries;
        const QString failure = PackageChecks::entries(package, entries);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QStringList files;
        QString fontLink;
        for (const PackageChecks::Entry& entry : entries) {
            files.append(entry.path);
            if (entry.path.endsWith(QLatin1String("/DejaVuSans.ttf"))) {
                fontLink = entry.linkTarget;
            }
        }
        files.sort();
        QCOMPARE(files, expectedFiles());

        // The font is a link to the system's font, relative within /usr.
        QVERIFY(!fontLink.isEmpty() && !fontLink.startsWith(QLatin1Char('/')));
        const QString linkDir = QStringLiteral(SELVANE_INSTALLED_DATA_DIR "/images");
        QCOMPARE(QDir::cleanPath(linkDir + QLatin1Char('/') + fontLink),
                 QStringLiteral(SELVANE_FONT));
    }

    void theFilesInEtcAreConffiles()
    {
        QTemporaryDir control;
        const QString failure =
            PackageChecks::extractControl(package, control.filePath(QStringLiteral("DEBIAN")));
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QStringList conffiles =
            QString::fromUtf8(readFile(control.filePath(QStringLiteral("DEBIAN/conffiles"))))
                .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        conffiles.sort();
        const QStringList inEtc =
            expectedFiles().filter(QRegularExpression(QStringLiteral("^/etc/")));
        QCOMPARE(inEtc.size(), 2);
        QCOMPARE(conffiles, inEtc);
    }

    void theInstalledDaemonStartsAndStops()
    {
        // The package unpacked into a scratch root; the daemon runs from there
        // in a private mount namespace whose /usr/share/orvanta is the
        // package's, against a private session bus.
        QTemporaryDir root;
        const QString unpacked = PackageChecks::unpack(package, root.path());
        QVERIFY2(unpacked.isEmpty(), qPrintable(unpacked));
        DaemonRunner runner;
        QVERIFY(runner.isBusRunning());
        runner.setExecutable(root.path() + QStringLiteral(SELVANE_INSTALLED_BINARY));
        runner.setShareDir(root.path() + QStringLiteral(SELVANE_INSTALLED_DATA_DIR));

        const pid_t daemon = runner.startDaemon(
            {QStringLiteral("--config"), root.path() + QStringLiteral(SELVANE_KEY_CONFIG)},
            DaemonRunner::logMessage(QStringLiteral("Connection established")));
        QVERIFY(daemon > 0);
        QVERIFY(QFile::exists(runner.pidFile()));
        // The font through its installed link and the sample key configuration.
        const QString log = runner.defaultLogFile();
        QVERIFY(DaemonRunner::waitForLine(
            log, DaemonRunner::logMessage(QStringLiteral(
                     "Loaded default font " SELVANE_INSTALLED_DATA_DIR "/images/DejaVuSans.ttf"))));
        QVERIFY(DaemonRunner::waitForLine(
            log, QRegularExpression(QStringLiteral(R"(\] Parsed [1-9]\d* key sequence\(s\)\.$)"))));

        const DaemonRunner::Result stop = runner.run({QStringLiteral("--stop")});
        QCOMPARE(stop.status, 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        QVERIFY(!QFile::exists(runner.pidFile()));
        const QStringList errors = errorLines(log);
        QVERIFY2(errors.isEmpty(), qPrintable(errors.join('\n')));
    }

    void dpkgRunsTheMaintainerScriptsWithoutSystemd()
    {
        ScratchSystem system;
        QVERIFY2(system.error().isEmpty(), qPrintable(system.error()));
        QVERIFY(!QFileInfo::exists(QStringLiteral("/run/systemd/system")));
        QCOMPARE(accountUid(), -1);

        // postinst makes the account, then the pid file's directory and the
        // log for it, and enables the unit: deb-systemd-helper makes its link
        // and records it. Without systemd it starts nothing: the log is empty.
        const ToolRun install =
            ToolRun::run(QStringLiteral("dpkg"), {QStringLiteral("--install"), package});
        QVERIFY2(install.status == 0, install.describe());
        const int uid = accountUid();
        QVERIFY(uid > 0);
        const QString pidDir = QFileInfo(pidFile).path();
        QVERIFY(QFileInfo(pidDir).isDir());
        QCOMPARE(QFileInfo(pidDir).ownerId(), uint(uid));
        QCOMPARE(QFileInfo(installedLog).ownerId(), uint(uid));
        QCOMPARE(QFileInfo(installedLog).size(), 0);
        QVERIFY(!QFileInfo::exists(pidFile));
        QCOMPARE(QFile::symLinkTarget(enablementLink), QStringLiteral(SELVANE_INSTALLED_UNIT));
        QVERIFY(QFileInfo::exists(enablementRecord));

        // systemd accepts the installed unit; its manual page is installed too.
        const QString verifyFailure =
            PackageChecks::verifyUnits({QStringLiteral(SELVANE_INSTALLED_UNIT)});
        QVERIFY2(verifyFailure.isEmpty(), qPrintable(verifyFailure));

        // The installed daemon, run as the account on a bus of the account's
        // (in place of its user bus, which the unit joins), writes its pid
        // file and its log where postinst made them, and stops on --stop.
        QTemporaryDir scratch;
        const QString daemonOutput = scratch.filePath(QStringLiteral("daemon-output"));
        QProcess bus;
        bus.start(QStringLiteral("setpriv"),
                  asAccount({QStringLiteral("dbus-daemon"), QStringLiteral("--session"),
                             QStringLiteral("--nofork"), QStringLiteral("--print-address=1")}));
        QVERIFY(DaemonRunner::waitUntil([&bus] { return bus.canReadLine(); }));
        const QString busAddress = QString::fromLocal8Bit(bus.readLine().trimmed());
        DaemonRunner::becomeSubreaper();
        pid_t daemon = 0;
        const auto killDaemon = qScopeGuard([&daemon] {
            if (daemon > 0) {
                kill(daemon, SIGKILL);
                DaemonRunner::waitForExit(daemon);
            }
        });
        QCOMPARE(runInstalledDaemonAsAccount(
                     {QStringLiteral("--config"), QStringLiteral(SELVANE_KEY_CONFIG)}, busAddress,
                     daemonOutput),
                 0);
        QVERIFY2(DaemonRunner::waitForLine(installedLog, DaemonRunner::logMessage(QStringLiteral(
                                                             "Connection established"))),
                 readFile(daemonOutput));
        daemon = readFile(pidFile).trimmed().toInt();
        QVERIFY(daemon > 0);
        QVERIFY(readFile(QStringLiteral("/proc/%1/status").arg(daemon))
                    .contains(QStringLiteral("\nUid:\t%1\t%1\t%1\t%1\n").arg(uid).toLatin1()));
        QCOMPARE(runInstalledDaemonAsAccount({QStringLiteral("--stop")}, busAddress, daemonOutput),
                 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        daemon = 0;
        bus.terminate();
        QVERIFY(bus.waitForFinished());
        QVERIFY(!QFileInfo::exists(pidFile));
        const QStringList errors = errorLines(installedLog);
        QVERIFY2(errors.isEmpty(), qPrintable(errors.join('\n')));

        // Removing: without systemd, prerm and postrm have nothing to stop or
        // reload. The enablement, the log and the account stay until the purge.
        const ToolRun remove =
            ToolRun::run(QStringLiteral("dpkg"), {QStringLiteral("--remove"), packageName});
        QVERIFY2(remove.status == 0, remove.describe());
        QVERIFY(!QFileInfo::exists(QStringLiteral(SELVANE_INSTALLED_UNIT)));
        QVERIFY(QFileInfo::exists(enablementRecord));
        QVERIFY(QFileInfo::exists(installedLog));

        // Purging: postrm removes the enablement, the log with its rotations
        // and the pid file's directory; the account stays.
        const QString rotatedLog = installedLog + QStringLiteral(".1");
        QVERIFY(writeFile(rotatedLog, "rotated\n"));
        const ToolRun purge =
            ToolRun::run(QStringLiteral("dpkg"), {QStringLiteral("--purge"), packageName});
        QVERIFY2(purge.status == 0, purge.describe());
        QVERIFY(!QFileInfo(enablementLink).isSymLink());
        QVERIFY(!QFileInfo::exists(enablementRecord));
        QVERIFY(!QFileInfo::exists(installedLog));
        QVERIFY(!QFileInfo::exists(rotatedLog));
        QVERIFY(!QFileInfo::exists(pidDir));
        QCOMPARE(accountUid(), uid);
    }
};

// Why the test cannot run here, or an empty string.
QString unavailableReason()
{
    const QString daemonReason = DaemonRunner::unavailableReason();
    if (!daemonReason.isEmpty()) {
        return daemonReason;
    }
    return PackageChecks::installUnavailableReason({}, {packageName}, account);
}

int main(int argc, char** argv)
{
    // Made while the process has one thread only, for ScratchSystem's mounts.
    ScratchSystem::privateMountNamespace();
    return runUnlessUnavailable<QCoreApplication, DebianPackageTest>(argc, argv,
                                                                     &unavailableReason);
}

#include "test_debian_package.moc"
