#pragma once

#include "ScratchSystem.h"
#include "ToolRun.h"

#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <cstdio>

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
// or an empty string: a program it needs is missing, the process could not
// make its mount namespace (namespaceError, the errno; 0 when that worked),
// a package or the account the packages make is on this machine already, or
// the mounts fail.
QString installUnavailableReason(const QStringList& programs, int namespaceError,
                                 const QStringList& packages, const QString& account);

} // namespace PackageChecks

// Like QTEST_GUILESS_MAIN for a test that installs packages into a
// ScratchSystem: the process's own mount namespace is made while it has one
// thread only (unshare moves just the calling thread), and the test exits
// with 77 (skipped) when unavailableReason(namespaceError) gives a reason.
#define SELVANE_SCRATCH_SYSTEM_TEST_MAIN(TestObject, unavailableReason)                            \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        const int namespaceError = ScratchSystem::privateMountNamespace();                         \
        QCoreApplication app(argc, argv);                                                          \
        const QString reason = unavailableReason(namespaceError);                                  \
        if (!reason.isEmpty()) {                                                                   \
            std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));                                \
            return 77;                                                                             \
        }                                                                                          \
        TestObject test;                                                                           \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&test, argc, argv);                                                    \
    }
