#include "DaemonRunner.h"
#include "PackageChecks.h"
#include "ScratchSystem.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

namespace {

const QString daemonPackageName = QStringLiteral("orvanta-selvane");
const QString packageName = QStringLiteral("orvanta-selvane-seats");
const QString account = QStringLiteral(SELVANE_USER);
const QString builtDir = QStringLiteral(SELVANE_SEATS_PACKAGING_DIR);
const QString unitDir = QStringLiteral(SELVANE_UNIT_DIR);
const QString stateFile = QStringLiteral(SELVANE_SEATS_STATE_FILE);

// The links deb-systemd-helper makes for the units' [Install] sections, and
// its records of having made them.
const QStringList enablementLinks = {
    QStringLiteral("/etc/systemd/system/sockets.target.wants/orvanta-selvane-bus.socket"),
    QStringLiteral("/etc/systemd/system/multi-user.target.wants/orvanta-selvane-seats.service")};
const QStringList enablementRecords = {
    QStringLiteral("/var/lib/systemd/deb-systemd-helper-enabled/sockets.target.wants/"
                   "orvanta-selvane-bus.socket"),
    QStringLiteral("/var/lib/systemd/deb-systemd-helper-enabled/multi-user.target.wants/"
                   "orvanta-selvane-seats.service")};

// The lines of a file, without the empty ones.
QStringList fileLines(const QString& file)
{
    return QString::fromUtf8(readFile(file)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

// The values of every "Key=" line of a unit file, in order.
QStringList unitSettings(const QString& file, const QString& key)
{
    QStringList values;
    for (const QString& line : fileLines(file)) {
        if (line.startsWith(key + QLatin1Char('='))) {
            values.append(line.mid(key.size() + 1));
        }
    }
    return values;
}

// A control field of a package, or a null string.
QString controlField(const QString& package, const QString& field)
{
    const ToolRun run =
        ToolRun::run(QStringLiteral("dpkg-deb"), {QStringLiteral("--field"), package, field});
    return run.status == 0 ? QString::fromUtf8(run.standardOutput).trimmed() : QString();
}

// Asks the bus at the address for its id, through setpriv with the given
// arguments (none: as root); the reply is printed to standard output.
ToolRun askBusId(const QString& address, const QStringList& setprivArguments)
{
    const QStringList command = {QStringLiteral("dbus-send"),
                                 QStringLiteral("--bus=") + address,
                                 QStringLiteral("--print-reply"),
                                 QStringLiteral("--reply-timeout=5000"),
                                 QStringLiteral("--dest=org.freedesktop.DBus"),
                                 QStringLiteral("/"),
                                 QStringLiteral("org.freedesktop.DBus.GetId")};
    return ToolRun::run(QStringLiteral("setpriv"), setprivArguments + command);
}

bool answered(const ToolRun& run)
{
    return run.status == 0 && run.standardOutput.contains("string \"");
}

} // namespace

// Builds both Debian packages from this build tree with cpack and checks the
// logind bridge's: its control fields, files, polkit rule, units and bus, and
// installing, removing and purging it with dpkg.
class SeatsPackageTest : public PackageTest
{
    Q_OBJECT

public:
    SeatsPackageTest() : PackageTest(packageName, QStringLiteral(SELVANE_SEATS_BINARY)) {}

private Q_SLOTS:
    void thePackageDependsOnTheDaemonsOfTheSameVersion()
    {
        QCOMPARE(controlField(package, QStringLiteral("Package")), packageName);
        const QString version =
            controlField(packageFile(daemonPackageName), QStringLiteral("Version"));
        QVERIFY(!version.isEmpty());
        QCOMPARE(controlField(package, QStringLiteral("Version")), version);
        QCOMPARE(controlField(package, QStringLiteral("Section")), QStringLiteral("admin"));

        const QString depends = controlField(package, QStringLiteral("Depends"));
        const QStringList dependencies =
            depends.split(QRegularExpression(QStringLiteral(",\\s*")), Qt::SkipEmptyParts);
        QVERIFY2(dependencies.contains(daemonPackageName + QStringLiteral(" (= ") + version + ')'),
                 qPrintable(depends));
        // logind and the units, the shared bus, the polkit rule.
        for (const QString& service : {QStringLiteral("systemd"), QStringLiteral("dbus-daemon"),
                                       QStringLiteral("polkitd")}) {
            QVERIFY2(dependencies.contains(service),
                     qPrintable(service + QStringLiteral(": ") + depends));
        }
        // The libraries' packages, computed from the binary (dpkg-shlibdeps).
        for (const QString& library : {QStringLiteral("libudev1"), QStringLiteral("libqt6dbus6"),
                                       QStringLiteral("libqt6core6")}) {
            QVERIFY2(depends.contains(QRegularExpression(QStringLiteral("\\b%1 \\(").arg(library))),
                     qPrintable(library + QStringLiteral(" missing from: ") + depends));
        }
    }

    void thePackageHoldsExactlyItsFiles()
    {
        QList<PackageChecks::Entry> entries;
        const QString failure = PackageChecks::entries(package, entries);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QStringList files;
        for (const PackageChecks::Entry& entry : entries) {
            // Files alone, no links.
            QVERIFY2(entry.type == QLatin1String("-") && entry.linkTarget.isEmpty(),
                     qPrintable(entry.path));
            // The binary alone is executable; nothing is writable but by root.
            const QString mode = entry.path == QLatin1String(SELVANE_SEATS_BINARY)
                                     ? QStringLiteral("rwxr-xr-x")
                                     : QStringLiteral("rw-r--r--");
            QVERIFY2(entry.mode == mode, qPrintable(entry.path + QLatin1Char(' ') + entry.mode));
            files.append(entry.path);
        }
        files.sort();
        QStringList expected = fileLines(QStringLiteral(SELVANE_SEATS_PACKAGE_FILES));
        expected.sort();
        QCOMPARE(files, expected);
    }

    void thePackageHasNoConffiles()
    {
        // Nothing in /etc: the room's settings are the administrator's file.
        QTemporaryDir control;
        const QString failure =
            PackageChecks::extractControl(package, control.filePath(QStringLiteral("DEBIAN")));
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QVERIFY(!QFileInfo::exists(control.filePath(QStringLiteral("DEBIAN/conffiles"))));
        for (const QString& script :
             {QStringLiteral("postinst"), QStringLiteral("prerm"), QStringLiteral("postrm")}) {
            const QFileInfo info(control.filePath(QStringLiteral("DEBIAN/") + script));
            QVERIFY2(info.exists() && info.isExecutable(), qPrintable(script));
        }
    }

    void thePolkitRuleLetsTheAccountAttachDevicesAndNothingElse()
    {
        if (!ToolRun::missingProgram({QStringLiteral("node")}).isEmpty()) {
            QSKIP("node is not installed: the rule's JavaScript cannot be run here");
        }
        // Every action of every policy installed here, logind's among them.
        QStringList actions;
        const QRegularExpression actionId(QStringLiteral("<action\\s+id=\"([^\"]+)\""));
        const QDir policies(QStringLiteral("/usr/share/polkit-1/actions"));
        for (const QString& policy :
             policies.entryList({QStringLiteral("*.policy")}, QDir::Files)) {
            const QString text = QString::fromUtf8(readFile(policies.filePath(policy)));
            for (const QRegularExpressionMatch& match : actionId.globalMatch(text)) {
                actions.append(match.captured(1));
            }
        }
        const QString attach = QStringLiteral("org.freedesktop.login1.attach-device");
        if (!actions.contains(attach)) {
            QSKIP("logind's polkit actions are not installed here");
        }
        QVERIFY(actions.filter(QStringLiteral("org.freedesktop.login1.")).size() > 10);

        // The account; root; a user in the account's group; a name that
        // starts with the account's; a user of another group.
        QJsonArray subjects;
        const auto addSubject = [&subjects](const QString& user, const QStringList& groups) {
            subjects.append(
                QJsonObject{{QStringLiteral("user"), user},
                            {QStringLiteral("groups"), QJsonArray::fromStringList(groups)}});
        };
        addSubject(account, {account});
        addSubject(QStringLiteral("root"), {QStringLiteral("root")});
        addSubject(QStringLiteral("pupil"), {QStringLiteral("pupil"), account});
        addSubject(account + QStringLiteral("2"), {account + QStringLiteral("2")});
        addSubject(QStringLiteral("nobody"), {QStringLiteral("nogroup")});

        const ToolRun node = ToolRun::run(
            QStringLiteral("node"),
            QStringList{QStringLiteral(SELVANE_POLKIT_HARNESS),
                        builtDir + QStringLiteral("/orvanta-selvane-seats.rules"),
                        QStringLiteral("--"),
                        QString::fromUtf8(QJsonDocument(subjects).toJson(QJsonDocument::Compact))} +
                actions);
        QVERIFY2(node.status == 0, node.describe());
        const QStringList results =
            QString::fromUtf8(node.standardOutput).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(results.size(), actions.size() * subjects.size());
        // One answer, for one action and one account; no opinion on anything
        // else, which leaves those to the policies' defaults and other rules.
        const QStringList answered =
            results.filter(QRegularExpression(QStringLiteral(" \\S+ (?!none$)\\S+$")));
        QCOMPARE(answered, QStringList{attach + ' ' + account + QStringLiteral(" yes")});
    }

    void theUnitsAndTheDaemonsDropInShareOneBus()
    {
        const QString socketUnit = builtDir + QStringLiteral("/orvanta-selvane-bus.socket");
        const QString busUnit = builtDir + QStringLiteral("/orvanta-selvane-bus.service");
        const QString bridgeUnit = builtDir + QStringLiteral("/orvanta-selvane-seats.service");
        const QString dropIn = builtDir + QStringLiteral("/orvanta-selvane-seats.conf");

        const QStringList listen = unitSettings(socketUnit, QStringLiteral("ListenStream"));
        QCOMPARE(listen.size(), 1);
        const QString address =
            QStringLiteral("DBUS_SESSION_BUS_ADDRESS=unix:path=") + listen.first();
        QCOMPARE(unitSettings(bridgeUnit, QStringLiteral("Environment")), QStringList{address});
        QCOMPARE(unitSettings(dropIn, QStringLiteral("Environment")), QStringList{address});
        QCOMPARE(unitSettings(socketUnit, QStringLiteral("SocketUser")), QStringList{account});
        QCOMPARE(unitSettings(socketUnit, QStringLiteral("SocketMode")),
                 QStringList{QStringLiteral("0600")});

        // Both programs bind to the bus, which runs dbus-daemon on the
        // socket's descriptor, as the account.
        const QStringList bus = {QStringLiteral("orvanta-selvane-bus.service")};
        QCOMPARE(unitSettings(bridgeUnit, QStringLiteral("BindsTo")), bus);
        QCOMPARE(unitSettings(dropIn, QStringLiteral("BindsTo")), bus);
        QCOMPARE(unitSettings(busUnit, QStringLiteral("User")), QStringList{account});
        QCOMPARE(unitSettings(bridgeUnit, QStringLiteral("User")), QStringList{account});
        const QStringList busCommand = unitSettings(busUnit, QStringLiteral("ExecStart"));
        QCOMPARE(busCommand.size(), 1);
        QVERIFY2(busCommand.first().startsWith(QStringLiteral("/usr/bin/dbus-daemon ")) &&
                     busCommand.first().endsWith(QStringLiteral(" --config-file=") +
                                                 QStringLiteral(SELVANE_SEATS_BUS_CONFIG)),
                 qPrintable(busCommand.first()));

        // The drop-in replaces the daemon's command: the same binary and key
        // configuration, on that bus, taking unassigned devices.
        QCOMPARE(unitSettings(dropIn, QStringLiteral("ExecStart")),
                 QStringList({QString(), QStringLiteral(SELVANE_INSTALLED_BINARY
                                                        " --config " SELVANE_KEY_CONFIG
                                                        " --grab-unassigned")}));
        QCOMPARE(unitSettings(bridgeUnit, QStringLiteral("ExecStart")),
                 QStringList{QStringLiteral(SELVANE_SEATS_BINARY)});
    }

    void systemdRatesTheSandboxes_data()
    {
        QTest::addColumn<QString>("unit");
        QTest::newRow("the bridge") << QStringLiteral("orvanta-selvane-seats.service");
        QTest::newRow("the bus") << QStringLiteral("orvanta-selvane-bus.service");
    }

    void systemdRatesTheSandboxes()
    {
        QFETCH(QString, unit);
        // Neither needs a capability, a device or IP.
        const QString exposure = PackageChecks::exposureAbove(builtDir + '/' + unit, 1.5);
        QVERIFY2(exposure.isEmpty(), qPrintable(exposure));
    }

    void dpkgInstallsRemovesAndPurgesThePackageWithoutSystemd()
    {
        ScratchSystem system;
        QVERIFY2(system.error().isEmpty(), qPrintable(system.error()));
        QVERIFY(!QFileInfo::exists(QStringLiteral("/run/systemd/system")));

        // polkitd keeps its rules directories to itself (mode 0700, where
        // it is installed); the package's directory entry must not open them.
        const QFileInfo rulesDir(QStringLiteral(SELVANE_POLKIT_RULES_DIR));
        const bool rulesDirExisted = rulesDir.exists();
        const QFile::Permissions rulesDirPermissions = rulesDir.permissions();
        const uint rulesDirOwner = rulesDir.ownerId();

        // Both at once: dpkg configures the daemon's first, which makes the
        // account. The bridge's postinst enables the bus's socket and the
        // bridge; without systemd it starts nothing.
        const ToolRun install =
            ToolRun::run(QStringLiteral("dpkg"),
                         {QStringLiteral("--install"), packageFile(daemonPackageName), package});
        QVERIFY2(install.status == 0, install.describe());
        QVERIFY(ServiceAccount::uid(account) > 0);
        for (int i = 0; i < enablementLinks.size(); ++i) {
            const QString unit = QFileInfo(enablementLinks.at(i)).fileName();
            QCOMPARE(QFile::symLinkTarget(enablementLinks.at(i)), unitDir + '/' + unit);
            QVERIFY(QFileInfo::exists(enablementRecords.at(i)));
        }

        if (rulesDirExisted) {
            const QFileInfo installedRulesDir(QStringLiteral(SELVANE_POLKIT_RULES_DIR));
            QCOMPARE(installedRulesDir.permissions(), rulesDirPermissions);
            QCOMPARE(installedRulesDir.ownerId(), rulesDirOwner);
        }

        // systemd accepts the installed units, the daemon's with the drop-in,
        // and finds the manual page they name.
        const QString verifyFailure =
            PackageChecks::verifyUnits({unitDir + QStringLiteral("/orvanta-selvane-bus.socket"),
                                        unitDir + QStringLiteral("/orvanta-selvane-bus.service"),
                                        unitDir + QStringLiteral("/orvanta-selvane-seats.service"),
                                        unitDir + QStringLiteral("/orvanta-selvane.service")});
        QVERIFY2(verifyFailure.isEmpty(), qPrintable(verifyFailure));

        // The installed bus, run as the account with its configuration, lets
        // the account and root in, and nobody else.
        QTemporaryDir busDir;
        QCOMPARE(chmod(QFile::encodeName(busDir.path()).constData(), 01777), 0);
        const QString socket = busDir.filePath(QStringLiteral("bus"));
        QProcess bus;
        bus.start(QStringLiteral("setpriv"),
                  ServiceAccount::asAccount(
                      account, {QStringLiteral("dbus-daemon"), QStringLiteral("--nofork"),
                                QStringLiteral("--config-file=" SELVANE_SEATS_BUS_CONFIG),
                                QStringLiteral("--address=unix:path=") + socket,
                                QStringLiteral("--print-address=1")}));
        const auto stopBus = qScopeGuard([&bus] {
            bus.terminate();
            bus.waitForFinished();
        });
        QVERIFY2(bus.waitForReadyRead(10000), bus.readAllStandardError().constData());
        const QString address = QString::fromLocal8Bit(bus.readLine().trimmed());
        QVERIFY2(address.startsWith(QStringLiteral("unix:path=") + socket), qPrintable(address));
        // The socket unit keeps others out with its mode; here the socket is
        // open to all, so that the bus's own policy is what refuses them.
        QCOMPARE(chmod(QFile::encodeName(socket).constData(), 0666), 0);
        const ToolRun asAccount = askBusId(address, ServiceAccount::asAccount(account, {}));
        QVERIFY2(answered(asAccount), asAccount.describe());
        const ToolRun asRoot = askBusId(address, {});
        QVERIFY2(answered(asRoot), asRoot.describe());
        // dbus-send runs, and the bus closes its connection.
        const ToolRun asNobody =
            askBusId(address, {QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"),
                               QStringLiteral("--clear-groups")});
        QVERIFY2(!answered(asNobody) && asNobody.standardError.contains("message bus"),
                 asNobody.describe());

        // Removing: the units and the drop-in go, the enablement and the
        // stations' numbers stay until the purge; the daemon stays installed.
        QVERIFY(QDir().mkpath(QFileInfo(stateFile).path()));
        QVERIFY(writeFile(stateFile, "seat0 0\nseat1 1\n"));
        const ToolRun remove =
            ToolRun::run(QStringLiteral("dpkg"), {QStringLiteral("--remove"), packageName});
        QVERIFY2(remove.status == 0, remove.describe());
        QVERIFY(!QFileInfo::exists(unitDir + QStringLiteral("/orvanta-selvane-seats.service")));
        QVERIFY(!QFileInfo::exists(unitDir + QStringLiteral("/orvanta-selvane.service.d")));
        QVERIFY(QFileInfo::exists(unitDir + QStringLiteral("/orvanta-selvane.service")));
        for (const QString& record : enablementRecords) {
            QVERIFY(QFileInfo::exists(record));
        }
        QVERIFY(QFileInfo::exists(stateFile));

        // Purging: the enablement, the state file and its directory go.
        const ToolRun purge =
            ToolRun::run(QStringLiteral("dpkg"), {QStringLiteral("--purge"), packageName});
        QVERIFY2(purge.status == 0, purge.describe());
        for (int i = 0; i < enablementLinks.size(); ++i) {
            QVERIFY(!QFileInfo(enablementLinks.at(i)).isSymLink());
            QVERIFY(!QFileInfo::exists(enablementRecords.at(i)));
        }
        QVERIFY(!QFileInfo::exists(stateFile));
        QVERIFY(!QFileInfo::exists(QFileInfo(stateFile).path()));
    }
};

// Why the test cannot run here, or an empty string.
QString unavailableReason()
{
    return PackageChecks::installUnavailableReason(
        {QStringLiteral("dbus-daemon"), QStringLiteral("dbus-send")},
        {daemonPackageName, packageName}, account);
}

int main(int argc, char** argv)
{
    // Made while the process has one thread only, for ScratchSystem's mounts.
    ScratchSystem::privateMountNamespace();
    return runUnlessUnavailable<QCoreApplication, SeatsPackageTest>(argc, argv, &unavailableReason);
}

#include "test_seats_package.moc"
