// The command line of orvanta-selvane-seats: which action each line asks
// for, why a line is refused, and the usage text as printed.
#include "seats/app/SeatsCommandLine.h"

#include <QtTest>

using Action = SeatsCommandLine::Action;

class SeatsCommandLineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void usageTextIsExact()
    {
        QCOMPARE(QByteArray(SeatsCommandLine::usageText()),
                 QByteArray("orvanta-selvane-seats: Gives each systemd-logind seat the keyboard "
                            "and mouse pressed on its screen\n"
                            "  (no option)     run as the service that plays the Orvanta platform "
                            "for orvanta-selvane.\n"
                            "  --status        print the seats, their stations and displays, every "
                            "keyboard and mouse.\n"
                            "  --json          print the same as JSON.\n"
                            "  --release SEAT  (as root) unassign the keyboards and mice of SEAT.\n"
                            "  -h --help       prints this help message\n"));
    }

    void eachLineAsksForOneAction_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("action");
        QTest::addColumn<bool>("json");
        QTest::addColumn<QString>("seat");
        QTest::addColumn<QString>("error");

        QTest::newRow("nothing: the service")
            << QStringList{} << int(Action::SERVE) << false << QString() << QString();
        QTest::newRow("--status") << QStringList{"--status"} << int(Action::STATUS) << false
                                  << QString() << QString();
        QTest::newRow("--status --json") << QStringList{"--status", "--json"} << int(Action::STATUS)
                                         << true << QString() << QString();
        QTest::newRow("--json alone")
            << QStringList{"--json"} << int(Action::STATUS) << true << QString() << QString();
        QTest::newRow("--release SEAT") << QStringList{"--release", "seat1"} << int(Action::RELEASE)
                                        << false << "seat1" << QString();
        QTest::newRow("--release=SEAT") << QStringList{"--release=seat-2"} << int(Action::RELEASE)
                                        << false << "seat-2" << QString();
        QTest::newRow("-h") << QStringList{"-h"} << int(Action::HELP) << false << QString()
                            << QString();
        QTest::newRow("--help after another option")
            << QStringList{"--status", "--help"} << int(Action::HELP) << false << QString()
            << QString();
        QTest::newRow("-h before an unknown option")
            << QStringList{"-h", "--bogus"} << int(Action::HELP) << false << QString() << QString();
        QTest::newRow("an unknown option")
            << QStringList{"--status", "--bogus"} << int(Action::INVALID) << false << QString()
            << "unknown option '--bogus'";
        QTest::newRow("an unknown short option") << QStringList{"-x"} << int(Action::INVALID)
                                                 << false << QString() << "unknown option '-x'";
        QTest::newRow("Qt's options are none of the program's")
            << QStringList{"--help-all"} << int(Action::INVALID) << false << QString()
            << "unknown option '--help-all'";
        QTest::newRow("a stray word") << QStringList{"status"} << int(Action::INVALID) << false
                                      << QString() << "unexpected argument 'status'";
        QTest::newRow("--release without its seat")
            << QStringList{"--release"} << int(Action::INVALID) << false << QString()
            << "--release needs a seat, such as seat1";
        QTest::newRow("--release followed by an option")
            << QStringList{"--release", "--status"} << int(Action::INVALID) << false << QString()
            << "--release needs a seat, such as seat1";
        QTest::newRow("--release with --status") << QStringList{"--status", "--release", "seat1"}
                                                 << int(Action::INVALID) << false << "seat1"
                                                 << "--release does not go with --status or --json";
        QTest::newRow("--release with --json") << QStringList{"--release", "seat1", "--json"}
                                               << int(Action::INVALID) << true << "seat1"
                                               << "--release does not go with --status or --json";
    }

    void eachLineAsksForOneAction()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, action);
        QFETCH(bool, json);
        QFETCH(QString, seat);
        QFETCH(QString, error);
        SeatsCommandLine commandLine;
        QCOMPARE(int(commandLine.parse(arguments)), action);
        QCOMPARE(commandLine.getError(), error);
        if (action != int(Action::INVALID)) {
            QCOMPARE(commandLine.isJson(), json);
            QCOMPARE(commandLine.getSeat(), seat);
        }
    }

    void aSecondParseStartsAfresh()
    {
        SeatsCommandLine commandLine;
        QCOMPARE(commandLine.parse({"--release", "seat1"}), Action::RELEASE);
        QCOMPARE(commandLine.parse({"--bogus"}), Action::INVALID);
        QCOMPARE(commandLine.parse({"--json"}), Action::STATUS);
        QVERIFY(commandLine.isJson());
        QCOMPARE(commandLine.getSeat(), QString());
        QCOMPARE(commandLine.getError(), QString());
        QCOMPARE(commandLine.parse({}), Action::SERVE);
        QVERIFY(!commandLine.isJson());
    }
};

QTEST_APPLESS_MAIN(SeatsCommandLineTest)

#include "test_seats_command_line.moc"
