#include "PackageChecks.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString unitFile = QStringLiteral(SELVANE_UNIT_FILE);
const QString sysusersFile = QStringLiteral(SELVANE_SYSUSERS_FILE);
const QString tmpfilesFile = QStringLiteral(SELVANE_TMPFILES_FILE);
const QString manPage = QStringLiteral(SELVANE_MAN_PAGE);

// The value of the first "Key=" line of the unit, or a null string.
QString unitSetting(const QString& key)
{
    const QStringList lines = QString::fromUtf8(readFile(unitFile)).split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        if (line.startsWith(key + QLatin1Char('='))) {
            return line.mid(key.size() + 1);
        }
    }
    return QString();
}

// The fields of the line of an /etc/passwd or /etc/group file that names the
// account or group, or an empty list.
QStringList databaseEntry(const QString& file, const QString& name)
{
    const QStringList lines = QString::fromUtf8(readFile(file)).split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        if (line.startsWith(name + QLatin1Char(':'))) {
            return line.split(QLatin1Char(':'));
        }
    }
    return {};
}

// The manual page as a reader sees it: mandoc's plain text, without the
// overstriking of bold and underlined text, every run of blanks made one.
QString renderedManPage()
{
    const ToolRun mandoc = ToolRun::run(QStringLiteral("mandoc"),
                                        {QStringLiteral("-T"), QStringLiteral("ascii"), manPage});
    QString text = QString::fromUtf8(mandoc.standardOutput);
    text.remove(QRegularExpression(QStringLiteral(".\b")));
    return text.simplified();
}

} // namespace

class ServiceFilesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void systemdAcceptsTheUnit()
    {
        // systemd-analyze also looks the unit's Documentation= page up with
        // man: give it the built one at its installed place in a manual tree.
        QTemporaryDir manTree;
        QVERIFY(QDir(manTree.path()).mkpath(QStringLiteral("man8")));
        QVERIFY(QFile::link(QStringLiteral(SELVANE_MAN_PAGE_GZ),
                            manTree.filePath(QStringLiteral("man8/orvanta-selvane.8.gz"))));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("MANPATH"), manTree.path());

        const QString failure = PackageChecks::verifyUnits({unitFile}, environment);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }

    void systemdRatesTheUnitsSandboxAsExposedAtMost3_5()
    {
        // For the unit with its capability.
        const QString exposure = PackageChecks::exposureAbove(unitFile, 3.5);
        QVERIFY2(exposure.isEmpty(), qPrintable(exposure));
    }

    void theUnitRunsTheForkingDaemonWithItsPidFileAndKeyConfiguration()
    {
        QCOMPARE(unitSetting(QStringLiteral("Type")), QStringLiteral("forking"));
        QCOMPARE(unitSetting(QStringLiteral("PIDFile")), QStringLiteral(SELVANE_UNIT_PID_FILE));
        QCOMPARE(unitSetting(QStringLiteral("User")), QStringLiteral(SELVANE_USER));
        QCOMPARE(unitSetting(QStringLiteral("SupplementaryGroups")), QStringLiteral("input"));
        // The capability the command launcher needs to drop the group input.
        QCOMPARE(unitSetting(QStringLiteral("AmbientCapabilities")), QStringLiteral("CAP_SETGID"));
        QCOMPARE(unitSetting(QStringLiteral("CapabilityBoundingSet")),
                 QStringLiteral("CAP_SETGID"));
        QCOMPARE(unitSetting(QStringLiteral("Restart")), QStringLiteral("on-failure"));
        // A reload is the daemon's SIGHUP.
        QCOMPARE(unitSetting(QStringLiteral("ExecReload")),
                 QStringLiteral("/bin/kill -HUP $MAINPID"));
        // Stopping is systemd's SIGTERM, the signal the daemon quits on.
        QVERIFY(unitSetting(QStringLiteral("ExecStop")).isNull());
        QVERIFY(unitSetting(QStringLiteral("KillSignal")).isNull());
    }

    void theUnitsCommandJoinsTheAccountsSessionBusUnlessOneIsGiven_data()
    {
        QTest::addColumn<QString>("givenAddress");
        QTest::addColumn<QString>("expectedAddress");
        QTest::newRow("no address: the user bus of the account the unit runs as")
            << QString() << QStringLiteral("unix:path=/run/user/%1/bus").arg(getuid());
        QTest::newRow("an address set by a drop-in is kept")
            << QStringLiteral("unix:path=/run/platform/bus")
            << QStringLiteral("unix:path=/run/platform/bus");
    }

    void theUnitsCommandJoinsTheAccountsSessionBusUnlessOneIsGiven()
    {
        QFETCH(QString, givenAddress);
        QFETCH(QString, expectedAddress);

        // ExecStart=/bin/sh -c '...; exec BINARY --config FILE', where systemd
        // turns "$$" into "$". The daemon is replaced by a script that prints
        // the bus address and its arguments.
        const QString execStart = unitSetting(QStringLiteral("ExecStart"));
        const QString prefix = QStringLiteral("/bin/sh -c '");
        QVERIFY2(execStart.startsWith(prefix) && execStart.endsWith(QLatin1Char('\'')),
                 qPrintable(execStart));
        QString script = execStart.mid(prefix.size(), execStart.size() - prefix.size() - 1);
        script.replace(QStringLiteral("$$"), QStringLiteral("$"));
        QTemporaryDir dir;
        const QString fakeDaemon = dir.filePath(QStringLiteral("orvanta-selvane"));
        QVERIFY(writeFile(fakeDaemon,
                          "#!/bin/sh\nprintf '%s\\n' \"$DBUS_SESSION_BUS_ADDRESS\" \"$@\"\n"));
        QVERIFY(QFile::setPermissions(fakeDaemon, QFile::ReadOwner | QFile::ExeOwner));
        const QString binary = QStringLiteral(SELVANE_INSTALLED_BINARY);
        QCOMPARE(script.count(binary), 1);
        script.replace(binary, fakeDaemon);

        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        if (!givenAddress.isEmpty()) {
            environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), givenAddress);
        }
        const ToolRun shell =
            ToolRun::run(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script}, environment);
        QVERIFY2(shell.status == 0, shell.describe());
        const QStringList printed = QString::fromUtf8(shell.standardOutput).split('\n');
        QCOMPARE(printed, QStringList({expectedAddress, QStringLiteral("--config"),
                                       QStringLiteral(SELVANE_KEY_CONFIG), QString()}));
    }

    void sysusersCreatesTheSystemAccountWithoutShellOrHome()
    {
        // systemd-sysusers --root writes the root's own /etc/passwd and
        // /etc/group.
        QTemporaryDir root;
        QVERIFY(QDir(root.path()).mkpath(QStringLiteral("etc")));
        const ToolRun sysusers =
            ToolRun::run(QStringLiteral("systemd-sysusers"),
                         {QStringLiteral("--root=") + root.path(), sysusersFile});
        QVERIFY2(sysusers.status == 0, sysusers.describe());

        // name:password:uid:gid:GECOS:home:shell, with a uid below Debian's
        // first user uid, 1000, and a group of its own.
        const QString user = QStringLiteral(SELVANE_USER);
        const QStringList account =
            databaseEntry(root.filePath(QStringLiteral("etc/passwd")), user);
        QCOMPARE(account.size(), 7);
        const int uid = account.at(2).toInt();
        QVERIFY2(uid > 0 && uid < 1000, qPrintable(account.join(':')));
        QCOMPARE(account.at(5), QStringLiteral("/nonexistent"));
        QCOMPARE(account.at(6), QStringLiteral("/usr/sbin/nologin"));
        const QStringList group = databaseEntry(root.filePath(QStringLiteral("etc/group")), user);
        QCOMPARE(group.size(), 4);
        QCOMPARE(group.at(2), account.at(3));
    }

    void tmpfilesCreatesThePidDirectoryAndTheLogForTheAccount()
    {
        // systemd-tmpfiles --root looks the account up in the root's own
        // /etc/passwd and /etc/group.
        QTemporaryDir root;
        QVERIFY(QDir(root.path()).mkpath(QStringLiteral("etc")));
        const QByteArray user = SELVANE_USER;
        QVERIFY(writeFile(root.filePath(QStringLiteral("etc/passwd")),
                          "root:x:0:0::/root:/bin/sh\n" + user +
                              ":x:4321:4321::/nonexistent:/usr/sbin/nologin\n"));
        QVERIFY(writeFile(root.filePath(QStringLiteral("etc/group")),
                          "root:x:0:\nadm:x:4:\n" + user + ":x:4321:\n"));

        const ToolRun tmpfiles = ToolRun::run(
            QStringLiteral("systemd-tmpfiles"),
            {QStringLiteral("--create"), QStringLiteral("--root=") + root.path(), tmpfilesFile});
        QVERIFY2(tmpfiles.status == 0 && tmpfiles.standardError.isEmpty(), tmpfiles.describe());

        struct stat pidDir = {};
        const QString pidDirPath =
            root.path() + QFileInfo(QStringLiteral(SELVANE_UNIT_PID_FILE)).path();
        QCOMPARE(stat(QFile::encodeName(pidDirPath).constData(), &pidDir), 0);
        QVERIFY(S_ISDIR(pidDir.st_mode));
        QCOMPARE(pidDir.st_mode & 07777, 0755u);
        QCOMPARE(pidDir.st_uid, 4321u);

        struct stat log = {};
        const QString logPath = root.path() + QStringLiteral(SELVANE_LOG);
        QCOMPARE(stat(QFile::encodeName(logPath).constData(), &log), 0);
        QVERIFY(S_ISREG(log.st_mode));
        QCOMPARE(log.st_mode & 07777, 0640u);
        QCOMPARE(log.st_uid, 4321u);
        QCOMPARE(log.st_gid, 4u);
    }

    void mandocFindsNothingInTheManualPage()
    {
        const ToolRun lint = ToolRun::run(QStringLiteral("mandoc"),
                                          {QStringLiteral("-T"), QStringLiteral("lint"), manPage});
        QVERIFY2(lint.status == 0, lint.describe());
        QVERIFY2(lint.standardOutput.isEmpty() && lint.standardError.isEmpty(), lint.describe());
    }

    void theManualPageDescribesEveryOptionAsTheHelpText()
    {
        const ToolRun help =
            ToolRun::run(QStringLiteral(SELVANE_BUILT_DAEMON), {QStringLiteral("--help")});
        QVERIFY2(help.status == 0, help.describe());
        const QString page = renderedManPage();
        QVERIFY(page.contains(QStringLiteral("OPTIONS")));

        // "  -l --logfile   name of the log file.  This is optional. ..."
        const QRegularExpression optionLine(QStringLiteral(R"(^  ((?:-\w )?--[\w-]+) +(.+)$)"));
        QStringList lines = QString::fromLatin1(help.standardOutput).split('\n');
        lines.removeFirst(); // the program's one-line summary
        lines.removeAll(QString());
        QCOMPARE(lines.size(), 8);
        for (const QString& line : lines) {
            const QRegularExpressionMatch match = optionLine.match(line);
            QVERIFY2(match.hasMatch(), qPrintable(line));
            for (const QString& option : match.captured(1).split(QLatin1Char(' '))) {
                QVERIFY2(page.contains(option), qPrintable(option));
            }
            const QString description = match.captured(2).simplified();
            QVERIFY2(page.contains(description), qPrintable(description));
        }
    }
};

SELVANE_TOOLS_TEST_MAIN(ServiceFilesTest, QStringLiteral("systemd-analyze"),
                        QStringLiteral("systemd-sysusers"), QStringLiteral("systemd-tmpfiles"),
                        QStringLiteral("mandoc"))

#include "test_service_files.moc"
