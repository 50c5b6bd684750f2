#include "common/CommandLine.h"

#include "Paths.h"

#include <QtTest>

#include <vector>

using Orvanta::CommandLine;

namespace {

// getopt_long wants writable strings and may reorder them.
struct Arguments
{
    explicit Arguments(const QStringList& arguments)
    {
        storage.push_back("orvanta-selvane");
        for (const QString& argument : arguments) {
            storage.push_back(argument.toLocal8Bit());
        }
        for (QByteArray& argument : storage) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(pointers.size()) - 1; }
    char** argv() { return pointers.data(); }

    std::vector<QByteArray> storage;
    std::vector<char*> pointers;
};

CommandLine::Result parse(CommandLine& commandLine, const QStringList& arguments)
{
    Arguments args(arguments);
    return commandLine.parse(args.argc(), args.argv());
}

} // namespace

class CommandLineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void usageTextIsExact()
    {
        QCOMPARE(QByteArray(CommandLine::usageText()),
                 QByteArray("orvanta-selvane: Scans keyboard inputs for specific key combinations "
                            "and then acts upon them\n"
                            "  -l --logfile   name of the log file.  This is optional.  If not "
                            "specified, the default log file is used\n"
                            "  -c --config    name of the configuration file.\n"
                            "  --start        start the selvane daemon.\n"
                            "  --restart      start the selvane daemon.\n"
                            "  --stop         stop the selvane daemon.\n"
                            "  --pid          return the pid of the selvane daemon.\n"
                            "  -h --help      prints this help message\n"
                            "  --grab-unassigned  take unassigned keyboards and mice for this "
                            "program alone.\n"));
    }

    void usageTextEndsWithTheGrabOptionAfterTheHelpLine()
    {
        const QList<QByteArray> lines = QByteArray(CommandLine::usageText()).split('\n');
        // The text ends in a newline: the split leaves an empty last piece.
        QCOMPARE(lines.size(), 10);
        QCOMPARE(lines.at(7), QByteArray("  -h --help      prints this help message"));
        QCOMPARE(lines.at(8), QByteArray("  --grab-unassigned  take unassigned keyboards and mice "
                                         "for this program alone."));
        QVERIFY(lines.at(9).isEmpty());
    }

    void grabUnassignedIsOffUnlessAsked_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("grab");
        QTest::newRow("no options") << QStringList{} << false;
        QTest::newRow("other options only") << QStringList{"-c", "keys.conf", "--start"} << false;
        QTest::newRow("--grab-unassigned")
            << QStringList{"--grab-unassigned", "-c", "keys.conf"} << true;
        QTest::newRow("after the other options")
            << QStringList{"-c", "keys.conf", "--grab-unassigned"} << true;
        QTest::newRow("unique abbreviation") << QStringList{"--grab"} << true;
    }

    void grabUnassignedIsOffUnlessAsked()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, grab);
        CommandLine commandLine;
        QCOMPARE(parse(commandLine, arguments), CommandLine::RESULT_RUN);
        QCOMPARE(commandLine.isGrabUnassignedRequested(), grab);
        QVERIFY(!commandLine.isPidRequested());
        QVERIFY(!commandLine.isStopRequested());
        QVERIFY(!commandLine.isRestartRequested());
    }

    void defaultsWithoutOptions()
    {
        CommandLine commandLine;
        QCOMPARE(parse(commandLine, {}), CommandLine::RESULT_RUN);
        QCOMPARE(commandLine.getLogFileName(), QString::fromLatin1(Orvanta::Paths::defaultLogFile));
        QCOMPARE(commandLine.getLogFileName(), QStringLiteral("/var/log/orvanta-selvane.log"));
        QVERIFY(commandLine.getConfigFileName().isEmpty());
        QVERIFY(!commandLine.isPidRequested());
        QVERIFY(!commandLine.isStopRequested());
        QVERIFY(!commandLine.isRestartRequested());
    }

    void shortAndLongFileOptions_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("short options") << QStringList{"-l", "my.log", "-c", "keys.conf"};
        QTest::newRow("long options")
            << QStringList{"--logfile", "my.log", "--config", "keys.conf"};
        QTest::newRow("long options with =")
            << QStringList{"--logfile=my.log", "--config=keys.conf"};
        QTest::newRow("attached short arguments") << QStringList{"-lmy.log", "-ckeys.conf"};
    }

    void shortAndLongFileOptions()
    {
        QFETCH(QStringList, arguments);
        CommandLine commandLine;
        QCOMPARE(parse(commandLine, arguments), CommandLine::RESULT_RUN);
        QCOMPARE(commandLine.getLogFileName(), QStringLiteral("my.log"));
        QCOMPARE(commandLine.getConfigFileName(), QStringLiteral("keys.conf"));
    }

    void pathsKeepEveryByteAsOneCharacter()
    {
        CommandLine commandLine;
        // "é" in UTF-8, and a byte that is no UTF-8 at all.
        const QByteArray log = "/tmp/journal-\xc3\xa9.log";
        const QByteArray config = "/etc/keys-\xff.conf";
        std::vector<QByteArray> storage{"orvanta-selvane", "-l", log, "--config", config};
        std::vector<char*> argv;
        for (QByteArray& argument : storage) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        QCOMPARE(commandLine.parse(static_cast<int>(storage.size()), argv.data()),
                 CommandLine::RESULT_RUN);
        QCOMPARE(commandLine.getLogFileName(), QString::fromLatin1(log));
        QCOMPARE(commandLine.getConfigFileName().toLatin1(), config);
    }

    void lastFileOptionWins()
    {
        CommandLine commandLine;
        QCOMPARE(parse(commandLine,
                       {"-c", "a.conf", "-l", "a.log", "--config", "b.conf", "--logfile", "b.log"}),
                 CommandLine::RESULT_RUN);
        QCOMPARE(commandLine.getLogFileName(), QStringLiteral("b.log"));
        QCOMPARE(commandLine.getConfigFileName(), QStringLiteral("b.conf"));
    }

    void flagOptions_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("pid");
        QTest::addColumn<bool>("stop");
        QTest::addColumn<bool>("restart");
        QTest::newRow("--start sets nothing") << QStringList{"--start"} << false << false << false;
        QTest::newRow("--pid") << QStringList{"--pid"} << true << false << false;
        QTest::newRow("--stop") << QStringList{"--stop"} << false << true << false;
        QTest::newRow("--restart") << QStringList{"--restart"} << false << false << true;
        QTest::newRow("all of them")
            << QStringList{"--restart", "--stop", "--pid", "--start"} << true << true << true;
    }

    void flagOptions()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, pid);
        QFETCH(bool, stop);
        QFETCH(bool, restart);
        CommandLine commandLine;
        QCOMPARE(parse(commandLine, arguments), CommandLine::RESULT_RUN);
        QCOMPARE(commandLine.isPidRequested(), pid);
        QCOMPARE(commandLine.isStopRequested(), stop);
        QCOMPARE(commandLine.isRestartRequested(), restart);
    }

    void helpStopsReadingAtOnce()
    {
        CommandLine commandLine;
        QCOMPARE(parse(commandLine, {"-c", "keys.conf", "-h", "--bogus", "-l"}),
                 CommandLine::RESULT_HELP);
        QCOMPARE(parse(commandLine, {"--pid", "--help", "--stop"}), CommandLine::RESULT_HELP);
        QVERIFY(!commandLine.isStopRequested());
    }

    void invalidOptions_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("unknown short option") << QStringList{"-x"};
        QTest::newRow("unknown long option") << QStringList{"--bogus"};
        QTest::newRow("missing -c argument") << QStringList{"-c"};
        QTest::newRow("missing --logfile argument") << QStringList{"--logfile"};
        QTest::newRow("argument given to --stop") << QStringList{"--stop=now"};
        QTest::newRow("unknown option before help") << QStringList{"-x", "-h"};
    }

    void invalidOptions()
    {
        QFETCH(QStringList, arguments);
        CommandLine commandLine;
        QCOMPARE(parse(commandLine, arguments), CommandLine::RESULT_INVALID);
    }

    void nonOptionArgumentsAreIgnored()
    {
        CommandLine commandLine;
        QCOMPARE(parse(commandLine, {"stray", "-c", "keys.conf", "another"}),
                 CommandLine::RESULT_RUN);
        QCOMPARE(commandLine.getConfigFileName(), QStringLiteral("keys.conf"));
    }

    void aSecondParseStartsAfresh()
    {
        CommandLine commandLine;
        QCOMPARE(parse(commandLine, {"--pid", "-c", "a.conf"}), CommandLine::RESULT_RUN);
        QCOMPARE(parse(commandLine, {"--stop"}), CommandLine::RESULT_RUN);
        QVERIFY(!commandLine.isPidRequested());
        QVERIFY(commandLine.isStopRequested());
        QVERIFY(commandLine.getConfigFileName().isEmpty());
        QCOMPARE(parse(commandLine, {"--grab-unassigned"}), CommandLine::RESULT_RUN);
        QCOMPARE(parse(commandLine, {}), CommandLine::RESULT_RUN);
        QVERIFY(!commandLine.isGrabUnassignedRequested());
    }

    void argumentGivenToGrabUnassignedIsInvalid()
    {
        CommandLine commandLine;
        QCOMPARE(parse(commandLine, {"--grab-unassigned=yes"}), CommandLine::RESULT_INVALID);
    }
};

QTEST_GUILESS_MAIN(CommandLineTest)
#include "test_command_line.moc"
