#include "PackageChecks.h"

#include "ScratchSystem.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>

namespace PackageChecks {

QString entries(const QString& package, QList<Entry>& found)
{
    const ToolRun contents =
        ToolRun::run(QStringLiteral("dpkg-deb"), {QStringLiteral("--contents"), package});
    if (contents.status != 0) {
        return QString::fromUtf8(contents.describe());
    }
    // "-rw-r--r-- root/root 383 2026-11-23 04:22 ./etc/logrotate.d/orvanta-selvane",
    // links with " -> target" after the name.
    const QRegularExpression entry(
        QStringLiteral(R"(^([-dl])(\S+) root/root +\d+ \S+ \S+ \.(/\S*)(?: -> (\S+))?$)"));
    found.clear();
    for (const QString& line : QString::fromUtf8(contents.standardOutput).split('\n')) {
        if (line.isEmpty()) {
            continue;
        }
        const QRegularExpressionMatch match = entry.match(line);
        if (!match.hasMatch()) {
            return line;
        }
        if (match.captured(1) != QLatin1String("d")) {
            found.append(
                {match.captured(1), match.captured(2), match.captured(3), match.captured(4)});
        }
    }
    return QString();
}

QString extractControl(const QString& package, const QString& directory)
{
    const ToolRun extract =
        ToolRun::run(QStringLiteral("dpkg-deb"), {QStringLiteral("--control"), package, directory});
    return extract.status == 0 ? QString() : QString::fromUtf8(extract.describe());
}

QString unpack(const QString& package, const QString& directory)
{
    const ToolRun run =
        ToolRun::run(QStringLiteral("dpkg-deb"), {QStringLiteral("-x"), package, directory});
    return run.status == 0 ? QString() : QString::fromUtf8(run.describe());
}

QString lintianComplaints(const QString& package)
{
    const ToolRun lintian =
        ToolRun::run(QStringLiteral("lintian"),
                     {QStringLiteral("--fail-on"), QStringLiteral("error,warning"),
                      QStringLiteral("--tag-display-limit"), QStringLiteral("0"), package});
    const QStringList tags =
        QString::fromUtf8(lintian.standardOutput).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& tag : tags) {
        qInfo("%s", qPrintable(tag));
    }
    if (!tags.filter(QRegularExpression(QStringLiteral("^[EW]: "))).isEmpty() ||
        lintian.status != 0) {
        return QString::fromUtf8(lintian.describe());
    }
    return QString();
}

QString hardeningGaps(const QString& package, const QString& program)
{
    QTemporaryDir root;
    const QString unpacked = unpack(package, root.path());
    if (!unpacked.isEmpty()) {
        return unpacked;
    }
    const ToolRun check = ToolRun::run(QStringLiteral("hardening-check"),
                                       {QStringLiteral("--nocfprotection"), root.path() + program});
    qInfo("%s", check.standardOutput.constData());
    if (check.status != 0) {
        return QString::fromUtf8(check.describe());
    }
    // "unknown" passes hardening-check; these must be found.
    for (const char* line : {" Position Independent Executable: yes\n", " Stack protected: yes\n",
                             " Fortify Source functions: yes", " Read-only relocations: yes\n",
                             " Immediate binding: yes\n"}) {
        if (!check.standardOutput.contains(line)) {
            return QString::fromUtf8(check.describe());
        }
    }
    return QString();
}

QString verifyUnits(const QStringList& units, const QProcessEnvironment& environment)
{
    const ToolRun verify = ToolRun::run(QStringLiteral("systemd-analyze"),
                                        QStringList{QStringLiteral("verify")} + units, environment);
    if (verify.status == 0 && verify.standardOutput.isEmpty() && verify.standardError.isEmpty()) {
        return QString();
    }
    return QString::fromUtf8(verify.describe());
}

QString exposureAbove(const QString& unit, double most)
{
    // "→ Overall exposure level for x.service: 2.6 OK 🙂".
    const ToolRun security =
        ToolRun::run(QStringLiteral("systemd-analyze"),
                     {QStringLiteral("security"), QStringLiteral("--offline=true"), unit});
    if (security.status != 0) {
        return QString::fromUtf8(security.describe());
    }
    const QRegularExpressionMatch overall =
        QRegularExpression(QStringLiteral(R"(Overall exposure level for \S+: (\d+\.\d) )"))
            .match(QString::fromUtf8(security.standardOutput));
    if (!overall.hasMatch()) {
        return QString::fromUtf8(security.describe());
    }
    qInfo("%s", qPrintable(overall.captured(0)));
    if (overall.captured(1).toDouble() > most) {
        return QString::fromUtf8(security.describe());
    }
    return QString();
}

QString installUnavailableReason(const QStringList& ownPrograms, const QStringList& packages,
                                 const QString& account)
{
    const QString missing = ToolRun::missingProgram(
        QStringList{QStringLiteral(SELVANE_CPACK), QStringLiteral("dpkg-deb"),
                    QStringLiteral("dpkg-shlibdeps"), QStringLiteral("lintian"),
                    QStringLiteral("dpkg"), QStringLiteral("dpkg-query"),
                    QStringLiteral("deb-systemd-helper"), QStringLiteral("systemd-sysusers"),
                    QStringLiteral("systemd-analyze"), QStringLiteral("setpriv"),
                    QStringLiteral("getent"), QStringLiteral("hardening-check")} +
        ownPrograms);
    if (!missing.isEmpty()) {
        return missing + QStringLiteral(" is not installed");
    }
    // dpkg installs into copies of this machine's system, which must not have
    // the packages or the account yet.
    for (const QString& name : packages) {
        const ToolRun installed = ToolRun::run(
            QStringLiteral("dpkg-query"),
            {QStringLiteral("--show"), QStringLiteral("--showformat=${db:Status-Status}"), name});
        if (installed.status == 0 && installed.standardOutput != "not-installed") {
            return name + QStringLiteral(" is on this machine (") +
                   QString::fromUtf8(installed.standardOutput) +
                   QStringLiteral("): the test cannot install it afresh");
        }
    }
    if (ServiceAccount::uid(account) >= 0) {
        return QStringLiteral("the account ") + account +
               QStringLiteral(" exists on this machine: the test cannot see the packages make it");
    }
    return ScratchSystem().error();
}

} // namespace PackageChecks

namespace {

// The packages cpack makes.
const QStringList packageNames = {QStringLiteral("orvanta-selvane"),
                                  QStringLiteral("orvanta-selvane-seats")};

// Runs cpack to make the Debian packages in the directory, then finds the file
// ("NAME_*.deb") of each named package there, in the order of the names.
// Fails unless there is one file for each name and none besides.
QString makePackages(const QString& directory, const QStringList& names, QStringList& files)
{
    const ToolRun run =
        ToolRun::run(QStringLiteral(SELVANE_CPACK),
                     {QStringLiteral("-G"), QStringLiteral("DEB"), QStringLiteral("-B"), directory,
                      QStringLiteral("--config"), QStringLiteral(SELVANE_CPACK_CONFIG)});
    if (run.status != 0) {
        return QString::fromUtf8(run.describe());
    }
    const QDir packages(directory);
    const QStringList all = packages.entryList({QStringLiteral("*.deb")}, QDir::Files);
    files.clear();
    for (const QString& name : names) {
        const QStringList named =
            packages.entryList({name + QStringLiteral("_*.deb")}, QDir::Files);
        if (named.size() != 1) {
            return QStringLiteral("cpack made %1 files of %2: %3")
                .arg(named.size())
                .arg(name, all.join(QLatin1Char(' ')));
        }
        files.append(packages.filePath(named.first()));
    }
    if (all.size() != names.size()) {
        return QStringLiteral("cpack made other packages than %1: %2")
            .arg(names.join(QLatin1Char(' ')), all.join(QLatin1Char(' ')));
    }
    return QString();
}

} // namespace

PackageTest::PackageTest(const QString& name, const QString& program)
    : checkedName(name), installedProgram(program)
{
}

QString PackageTest::packageFile(const QString& name) const
{
    return packages.value(packageNames.indexOf(name));
}

void PackageTest::initTestCase()
{
    QVERIFY(output.isValid());
    const QString failure = makePackages(output.path(), packageNames, packages);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    package = packageFile(checkedName);
    QVERIFY2(!package.isEmpty(), qPrintable(checkedName));
}

void PackageTest::lintianFindsNoErrorOrWarning()
{
    const QString complaints = PackageChecks::lintianComplaints(package);
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints));
}

void PackageTest::theProgramIsBuiltHardened()
{
    if (!SELVANE_HARDENED) {
        QSKIP("The sanitizer builds leave the hardening flags out: FORTIFY_SOURCE and "
              "AddressSanitizer do not go together");
    }
    const QString gaps = PackageChecks::hardeningGaps(package, installedProgram);
    QVERIFY2(gaps.isEmpty(), qPrintable(gaps));
}
