#include "DaemonRunner.h"
#include "TestFiles.h"
#include "ToolRun.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString packageName = QStringLiteral("orvanta-selvane");

// The fixed paths the package must hold, as packaging/ lists them.
QStringList expectedFiles()
{
    QStringList files = QString::fromUtf8(readFile(QStringLiteral(SELVANE_PACKAGE_FILES)))
                            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    files.sort();
    return files;
}

} // namespace

// Builds the Debian package from this build tree with cpack, checks it and
// runs the daemon it installs.
class DebianPackageTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(output.isValid());
        const ToolRun cpack = ToolRun::run(
            QStringLiteral(SELVANE_CPACK),
            {QStringLiteral("-G"), QStringLiteral("DEB"), QStringLiteral("-B"), output.path(),
             QStringLiteral("--config"), QStringLiteral(SELVANE_CPACK_CONFIG)});
        QVERIFY2(cpack.status == 0, cpack.describe());
        const QStringList packages =
            QDir(output.path()).entryList({QStringLiteral("*.deb")}, QDir::Files);
        QCOMPARE(packages.size(), 1);
        package = output.filePath(packages.first());
    }

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
        const ToolRun contents =
            ToolRun::run(QStringLiteral("dpkg-deb"), {QStringLiteral("--contents"), package});
        QVERIFY2(contents.status == 0, contents.describe());
        // "-rw-r--r-- root/root 383 2026-11-23 04:22 ./etc/logrotate.d/orvanta-selvane",
        // links with " -> target" after the name; directories are left out.
        const QRegularExpression entry(
            QStringLiteral(R"(^([-dl])\S+ root/root +\d+ \S+ \S+ \.(/\S*)(?: -> (\S+))?$)"));
        QStringList files;
        QString fontLink;
        for (const QString& line : QString::fromUtf8(contents.standardOutput).split('\n')) {
            if (line.isEmpty()) {
                continue;
            }
            const QRegularExpressionMatch match = entry.match(line);
            QVERIFY2(match.hasMatch(), qPrintable(line));
            if (match.captured(1) == QLatin1String("d")) {
                continue;
            }
            files.append(match.captured(2));
            if (match.captured(2).endsWith(QLatin1String("/DejaVuSans.ttf"))) {
                fontLink = match.captured(3);
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
        const ToolRun extract =
            ToolRun::run(QStringLiteral("dpkg-deb"), {QStringLiteral("--control"), package,
                                                      control.filePath(QStringLiteral("DEBIAN"))});
        QVERIFY2(extract.status == 0, extract.describe());
        QStringList conffiles =
            QString::fromUtf8(readFile(control.filePath(QStringLiteral("DEBIAN/conffiles"))))
                .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        conffiles.sort();
        const QStringList inEtc =
            expectedFiles().filter(QRegularExpression(QStringLiteral("^/etc/")));
        QCOMPARE(inEtc.size(), 2);
        QCOMPARE(conffiles, inEtc);
    }

    void lintianFindsNoError()
    {
        const ToolRun lintian =
            ToolRun::run(QStringLiteral("lintian"),
                         {QStringLiteral("--fail-on"), QStringLiteral("error"),
                          QStringLiteral("--tag-display-limit"), QStringLiteral("0"), package});
        const QStringList tags =
            QString::fromUtf8(lintian.standardOutput).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (const QString& tag : tags) {
            qInfo("%s", qPrintable(tag));
        }
        QVERIFY2(tags.filter(QRegularExpression(QStringLiteral("^E: "))).isEmpty(),
                 lintian.describe());
        QVERIFY2(lintian.status == 0, lintian.describe());
    }

    void theInstalledDaemonStartsAndStops()
    {
        // The package unpacked into a scratch root; the daemon runs from there
        // in a private mount namespace whose /usr/share/orvanta is the
        // package's, against a private session bus.
        QTemporaryDir root;
        const ToolRun unpack =
            ToolRun::run(QStringLiteral("dpkg-deb"), {QStringLiteral("-x"), package, root.path()});
        QVERIFY2(unpack.status == 0, unpack.describe());
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
        const QStringList errors = DaemonRunner::readLines(log).filter(
            QRegularExpression(QStringLiteral(R"(^\[[^\]]+\] \[(Error|Bug)\] )")));
        QVERIFY2(errors.isEmpty(), qPrintable(errors.join('\n')));
    }

private:
    QTemporaryDir output;
    QString package;
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QString reason =
        ToolRun::missingProgram({QStringLiteral(SELVANE_CPACK), QStringLiteral("dpkg-deb"),
                                 QStringLiteral("dpkg-shlibdeps"), QStringLiteral("lintian")});
    if (!reason.isEmpty()) {
        reason += QStringLiteral(" is not installed");
    } else {
        reason = DaemonRunner::unavailableReason();
    }
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));
        return 77;
    }
    DebianPackageTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_debian_package.moc"
