#pragma once

#include "ToolRun.h"

#include <QList>
#include <QObject>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

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

// Runs cpack with the configuration to make the Debian packages in the
// directory, then finds the file ("NAME_*.deb") of each named package there,
// in the order of the names. Fails unless there is one file for each name
// and none besides.
QString makePackages(const QString& cpack, const QString& config, const QString& directory,
                     const QStringList& names, QStringList& files);

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

// Why a test cannot install the packages with dpkg into a ScratchSystem here,
// or an empty string: a program it needs is missing, a package or the account
// the packages make is on this machine already, or the mounts fail.
QString installUnavailableReason(const QStringList& programs, const QStringList& packages,
                                 const QString& account);

} // namespace PackageChecks

// A test of one of the packages cpack makes, with the checks every such
// package gets: lintian's, and hardening-check's of the program it installs.
// The test's initTestCase sets `package`; these two run next, before the
// test's own.
class PackageTest : public QObject
{
    Q_OBJECT

protected:
    // The path the package installs its program at; whether the build has
    // the hardening flags (the sanitizer builds leave them out).
    PackageTest(const QString& program, bool hardened);

    QString package; // the package's file

private Q_SLOTS:
    void lintianFindsNoErrorOrWarning();
    void theProgramIsBuiltHardened();

private:
    const QString installedProgram;
    const bool hardenedBuild;
};
