// The built orvanta-selvane-seats asked for its usage and given a bad
// command line: what it prints where, and how it exits. Neither touches a
// bus, udev or a file.
#include "seats/app/SeatsCommandLine.h"

#include <QProcess>
#include <QtTest>

namespace {
constexpr int runMs = 10000;

struct Run
{
    int exitCode = -1;
    QByteArray standardOutput;
    QByteArray standardError;
};

Run runProgram(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral(SELVANE_SEATS_EXECUTABLE), arguments);
    Run run;
    if (!process.waitForFinished(runMs) || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished(runMs);
        return run;
    }
    run.exitCode = process.exitCode();
    run.standardOutput = process.readAllStandardOutput();
    run.standardError = process.readAllStandardError();
    return run;
}
} // namespace

class SeatsProgramTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void helpPrintsTheUsage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("-h") << QStringList{"-h"};
        QTest::newRow("--help") << QStringList{"--help"};
    }

    void helpPrintsTheUsage()
    {
        QFETCH(QStringList, arguments);
        const Run run = runProgram(arguments);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.standardOutput, QByteArray(SeatsCommandLine::usageText()));
        QCOMPARE(run.standardError, QByteArray());
        // Every line ends with its newline, the last one included.
        QVERIFY(run.standardOutput.endsWith('\n'));
        QVERIFY(run.standardOutput.contains("  --release SEAT  (as root) unassign the keyboards "
                                            "and mice of SEAT.\n  -h --help"));
    }

    void aBadLineIsOneErrorAndTheUsage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("error");
        QTest::newRow("an unknown option")
            << QStringList{"--bogus"}
            << QByteArray("orvanta-selvane-seats: unknown option '--bogus'\n");
        QTest::newRow("Qt's --help-all")
            << QStringList{"--help-all"}
            << QByteArray("orvanta-selvane-seats: unknown option '--help-all'\n");
        QTest::newRow("--release without its seat")
            << QStringList{"--release"}
            << QByteArray("orvanta-selvane-seats: --release needs a seat, such as seat1\n");
    }

    void aBadLineIsOneErrorAndTheUsage()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, error);
        const Run run = runProgram(arguments);
        QCOMPARE(run.exitCode, 1);
        QCOMPARE(run.standardOutput, QByteArray());
        QCOMPARE(run.standardError, error + SeatsCommandLine::usageText());
    }
};

QTEST_APPLESS_MAIN(SeatsProgramTest)

#include "test_seats_program.moc"
