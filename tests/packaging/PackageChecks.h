#pragma once

#include "ToolRun.h"

#include <QList>
#include <QObject>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// Checks of the Debian packages cpack makes and of the systemd units they
// hold, as the packaging tests make them. Each returns what a failed
// assertion prints, or an empty string when the check held.
namespace PackageChecks {

// One entry of a package's contents, as dpkg-deb --contents lists it.
struct Entry
{
    QString type;       // "-" a file, "l" a link
    QString mode;       // "rw-r--r--"
    QString path;       // "/lib/systemd/system/x.service"
    QString linkTarget; // a link's target, else empty
};

// The package's entries but its directories, every one of which must be
// owned by root.
QString entries(const QString& package, QList<Entry>& found);

// Extracts the package's control files into the directory.
QString extractControl(const QString& package, const QString& directory);

// Unpacks the package's files into the directory.
QString unpack(const QString& package, const QString& directory);

// lintian's tags on the package, each printed; fails on an error or a warning.
QString lintianComplaints(const QString& package);

// hardening-check on the program the package installs at the path. Debian
// 12's own start files (crt1.o, crti.o) carry no IBT and SHSTK notes, so no
// program linked here is marked for control-flow protection, Debian's own
// included: hardening-check is told not to require it. It fails on any other
// missing protection, and on one it cannot find.
QString hardeningGaps(const QString& package, const QString& program);

// systemd-analyze verify on the units; fails on any complaint.
QString verifyUnits(const QStringList& units,
                    const QProcessEnvironment& environment = QProcessEnvironment());

// systemd-analyze security on the unit file, its overall exposure level
// printed; fails when that is above the most, from 0 (no exposure) to 10.
QString exposureAbove(const QString& unit, double most);

// Why a PackageTest that installs the packages with dpkg into a ScratchSystem
// cannot run here, or an empty string: a program it needs is missing (cpack,
// dpkg and its helpers, lintian, hardening-check, systemd's tools, setpriv,
// or one of the test's own programs), a package or the account the packages
// make is on this machine already, or the mounts fail.
QString installUnavailableReason(const QStringList& ownPrograms, const QStringList& packages,
                                 const QString& account);

} // namespace PackageChecks

// A test of one of the two packages cpack makes from the build tree, the
// daemon's and the logind bridge's, with the checks every package gets:
// lintian's, and hardening-check's of the program it installs. initTestCase
// makes both packages; these two checks run next, before the test's own.
class PackageTest : public QObject
{
    Q_OBJECT

protected:
    // The name of the package the test checks, and the path it installs its
    // program at.
    PackageTest(const QString& name, const QString& program);

    // The file of the package of the name, made by initTestCase.
    QString packageFile(const QString& name) const;

    QString package; // the checked package's file

private Q_SLOTS:
    void initTestCase();
    void lintianFindsNoErrorOrWarning();
    void theProgramIsBuiltHardened();

private:
    const QString checkedName;
    const QString installedProgram;
    QTemporaryDir output;
    QStringList packages; // the files, in the order of packageNames
};
