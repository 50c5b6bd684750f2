// Station numbers: seat0 is 0, the others the lowest free number, never moved;
// the state file read (missing, corrupt, duplicate lines) and written.
#include "LogCapture.h"
#include "TestFiles.h"

#include "seats/SeatNumbers.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using Numbers = QMap<QString, int>;

class SeatNumbersTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QVERIFY(dir.isValid());
        QDir(dir.path()).removeRecursively();
        QVERIFY(QDir().mkpath(dir.path()));
        log.clear();
    }

    void aMissingFileIsAnEmptyRecord()
    {
        SeatNumbers numbers(file());
        QVERIFY(numbers.load());
        QVERIFY(numbers.getNumbers().isEmpty());
        QVERIFY(!numbers.isChanged());
        QVERIFY(log.entries().isEmpty());
        // Nothing changed, so nothing is written.
        QVERIFY(numbers.save());
        QVERIFY(!QFileInfo::exists(file()));
    }

    void numbersAreGivenOnceAndNeverMove_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QStringList>("seen");
        QTest::addColumn<Numbers>("expected");

        QTest::newRow("seat0 is 0 and the others count up from 1")
            << QByteArray() << QStringList{"seat1", "seat0", "seat2"}
            << Numbers{{"seat0", 0}, {"seat1", 1}, {"seat2", 2}};
        QTest::newRow("a new seat takes the lowest free number")
            << QByteArray("seat0 0\nseat1 1\nseat3 3\n") << QStringList{"seat-new"}
            << Numbers{{"seat0", 0}, {"seat1", 1}, {"seat3", 3}, {"seat-new", 2}};
        QTest::newRow("a recorded seat keeps its number, a gone one its own")
            << QByteArray("seat2 1\n") << QStringList{"seat1", "seat2"}
            << Numbers{{"seat1", 2}, {"seat2", 1}};
        QTest::newRow("seat0 is 0 even when it comes last")
            << QByteArray("seat1 1\n") << QStringList{"seat5", "seat0"}
            << Numbers{{"seat0", 0}, {"seat1", 1}, {"seat5", 2}};
    }
    void numbersAreGivenOnceAndNeverMove()
    {
        QFETCH(QByteArray, content);
        QFETCH(QStringList, seen);
        QFETCH(Numbers, expected);
        if (!content.isEmpty()) {
            QVERIFY(writeFile(file(), content));
        }
        SeatNumbers numbers(file());
        QVERIFY(numbers.load());
        for (const QString& seat : seen) {
            QCOMPARE(numbers.numberOf(seat), expected.value(seat));
            // Asked again, the same.
            QCOMPARE(numbers.numberOf(seat), expected.value(seat));
        }
        QCOMPARE(numbers.getNumbers(), expected);
        QVERIFY(numbers.isChanged());
        QVERIFY(numbers.save());
        QVERIFY(!numbers.isChanged());

        SeatNumbers reloaded(file());
        QVERIFY(reloaded.load());
        QCOMPARE(reloaded.getNumbers(), expected);
        QVERIFY(log.messages().filter(QStringLiteral("left out")).isEmpty());
    }

    void corruptLinesAreLeftOut_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<Numbers>("expected");
        QTest::addColumn<QString>("warning");

        QTest::newRow("comments and blank lines are no entries")
            << QByteArray("# numbers\n\n  seat1   1  # the second screen\n")
            << Numbers{{"seat1", 1}} << QString();
        QTest::newRow("a number that is no number")
            << QByteArray("seat1 one\nseat2 2\n") << Numbers{{"seat2", 2}}
            << ":1: line left out: 'one' is not a station number from 0 to 9999";
        QTest::newRow("a negative number")
            << QByteArray("seat2 2\nseat1 -1\n") << Numbers{{"seat2", 2}}
            << ":2: line left out: '-1' is not a station number "
               "from 0 to 9999";
        QTest::newRow("a number too large")
            << QByteArray("seat1 10000\n") << Numbers{}
            << ":1: line left out: '10000' is not a station number from 0 to 9999";
        QTest::newRow("the same seat twice: the first line counts")
            << QByteArray("seat1 1\nseat1 2\n") << Numbers{{"seat1", 1}}
            << ":2: line left out: seat1 has a number already";
        QTest::newRow("the same number twice: the first line counts")
            << QByteArray("seat1 1\nseat2 1\n") << Numbers{{"seat1", 1}}
            << ":2: line left out: station 1 is another seat's already";
        QTest::newRow("a name logind would not give a seat")
            << QByteArray("seat/1 1\nseat2 2\n") << Numbers{{"seat2", 2}}
            << ":1: line left out: 'seat/1' is not a seat name";
        QTest::newRow("seat0 with another number")
            << QByteArray("seat0 3\n") << Numbers{}
            << ":1: line left out: seat0 is always station 0";
        QTest::newRow("another seat with 0")
            << QByteArray("seat0 0\nseat1 0\n") << Numbers{{"seat0", 0}}
            << ":2: line left out: station 0 is seat0's";
        QTest::newRow("a third field") << QByteArray("seat1 1 extra\n") << Numbers{}
                                       << ":1: line left out: it is not \"SEAT NUMBER\"";
        QTest::newRow("a seat without number")
            << QByteArray("seat0 0\n\nseat1\n") << Numbers{{"seat0", 0}}
            << ":3: line left out: it is not \"SEAT NUMBER\"";
    }
    void corruptLinesAreLeftOut()
    {
        QFETCH(QByteArray, content);
        QFETCH(Numbers, expected);
        QFETCH(QString, warning);
        QVERIFY(writeFile(file(), content));
        SeatNumbers numbers(file());
        QVERIFY(numbers.load());
        QCOMPARE(numbers.getNumbers(), expected);
        QVERIFY(!numbers.isChanged());
        if (warning.isEmpty()) {
            QVERIFY(log.entries().isEmpty());
            return;
        }
        QCOMPARE(log.entries().size(), 1);
        const LogCapture::Entry& entry = log.entries().first();
        QCOMPARE(entry.level, Orvanta::Logger::LEVEL_WARNING);
        QCOMPARE(entry.message, file() + warning);
        QCOMPARE(entry.file, QStringLiteral("SeatNumbers"));
        QCOMPARE(entry.function, QStringLiteral("load"));
        // A number that a left-out line named is free to be given.
        const int next = numbers.numberOf(QStringLiteral("seat-new"));
        QVERIFY(!expected.values().contains(next));
    }

    void theFileIsWrittenOnlyWhenTheRecordChanged()
    {
        const QByteArray handWritten("# written by hand\nseat0 0\nseat1    1\n");
        QVERIFY(writeFile(file(), handWritten));
        SeatNumbers numbers(file());
        QVERIFY(numbers.load());
        QCOMPARE(numbers.numberOf(QStringLiteral("seat1")), 1);
        QVERIFY(numbers.save());
        QCOMPARE(readFile(file()), handWritten);

        QCOMPARE(numbers.numberOf(QStringLiteral("seat2")), 2);
        QVERIFY(numbers.save());
        const QByteArray written = readFile(file());
        QVERIFY(written.startsWith('#'));
        QVERIFY(written.endsWith("seat0 0\nseat1 1\nseat2 2\n"));
        // No temporary file is left beside it, and everyone may read it.
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList{"seats"});
        struct stat status = {};
        QCOMPARE(stat(QFile::encodeName(file()).constData(), &status), 0);
        QCOMPARE(status.st_mode & 0777, 0644u);
    }

    void aLinkAtTheNameIsReplacedNotFollowed()
    {
        const QString target = dir.filePath(QStringLiteral("elsewhere"));
        QVERIFY(writeFile(target, "untouched\n"));
        QVERIFY(QFile::link(target, file()));
        SeatNumbers numbers(file());
        numbers.numberOf(QStringLiteral("seat0"));
        QVERIFY(numbers.save());
        QCOMPARE(readFile(target), QByteArray("untouched\n"));
        QVERIFY(!QFileInfo(file()).isSymLink());
        QVERIFY(readFile(file()).endsWith("seat0 0\n"));
    }

    void aFailedWriteIsAnErrorAndIsTriedAgain()
    {
        const QString missing = dir.filePath(QStringLiteral("missing/seats"));
        SeatNumbers numbers(missing);
        QVERIFY(numbers.load());
        numbers.numberOf(QStringLiteral("seat0"));
        QVERIFY(!numbers.save());
        QVERIFY(numbers.isChanged());
        QCOMPARE(log.entries().last().level, Orvanta::Logger::LEVEL_ERROR);
        QVERIFY2(log.entries().last().message.startsWith(
                     "Could not save the station numbers: Could not create a temporary file "
                     "beside " +
                     missing),
                 qPrintable(log.entries().last().message));
        QVERIFY(QDir().mkpath(dir.filePath(QStringLiteral("missing"))));
        QVERIFY(numbers.save());
        QVERIFY(!numbers.isChanged());
    }

    void anUnreadableFileIsNeverOverwritten()
    {
        // Whoever runs the test, a directory cannot be read as a file.
        QVERIFY(QDir().mkpath(file()));
        SeatNumbers numbers(file());
        QVERIFY(!numbers.load());
        QCOMPARE(log.entries().size(), 1);
        QCOMPARE(log.entries().first().level, Orvanta::Logger::LEVEL_ERROR);
        QVERIFY(log.entries().first().message.startsWith("Could not read " + file() + ": "));
        QVERIFY(log.entries().first().message.endsWith(
            "; the numbers given until it can be read are not kept"));
        QCOMPARE(numbers.numberOf(QStringLiteral("seat1")), 1);
        log.clear();
        QVERIFY(!numbers.save());
        QVERIFY(log.entries().isEmpty());
        QVERIFY(QFileInfo(file()).isDir());
    }

    void seatNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::newRow("seat0") << "seat0" << true;
        QTest::newRow("dashes and underscores") << "seat-a_1" << true;
        QTest::newRow("empty") << "" << false;
        QTest::newRow("a blank") << "seat 1" << false;
        QTest::newRow("a slash") << "seat/1" << false;
        QTest::newRow("a dot") << "seat.1" << false;
    }
    void seatNames()
    {
        QFETCH(QString, name);
        QFETCH(bool, valid);
        QCOMPARE(SeatNumbers::isSeatName(name), valid);
    }

    void aNameThatIsNoSeatNameGetsNoNumber()
    {
        SeatNumbers numbers(file());
        QCOMPARE(numbers.numberOf(QStringLiteral("seat 1")), -1);
        QVERIFY(numbers.getNumbers().isEmpty());
        QVERIFY(!numbers.isChanged());
    }

private:
    QString file() const { return dir.filePath(QStringLiteral("seats")); }

    QTemporaryDir dir;
    LogCapture log;
};

QTEST_GUILESS_MAIN(SeatNumbersTest)
#include "test_seat_numbers.moc"
