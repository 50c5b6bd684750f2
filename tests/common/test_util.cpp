#include "common/Util.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <ctime>

class UtilTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void secondsSinceEpochIsTheCurrentTime()
    {
        const qint64 before = static_cast<qint64>(time(nullptr));
        const qint64 seconds = Orvanta::utilSecondsSinceEpoch();
        const qint64 after = static_cast<qint64>(time(nullptr));
        QVERIFY(seconds >= before);
        QVERIFY(seconds <= after);
    }

    void secondsSinceEpochIsSixtyFourBits()
    {
        static_assert(sizeof(Orvanta::utilSecondsSinceEpoch()) == 8,
                      "the time must survive the year 2038");
        QVERIFY(Orvanta::utilSecondsSinceEpoch() > 1700000000);
    }

    void boolToStringSpellsTheValue()
    {
        QCOMPARE(Orvanta::boolToString(true), QStringLiteral("true"));
        QCOMPARE(Orvanta::boolToString(false), QStringLiteral("false"));
    }

    void openLatin1PathOpensTheVeryBytesGiven()
    {
        QTemporaryDir dir;
        // "journal-é.log" in UTF-8, read as Latin-1 the way the command line
        // reads its paths: two characters for the é.
        const QByteArray name = dir.path().toLatin1() + "/journal-\xc3\xa9.log";
        const QString fileName = QString::fromLatin1(name);
        QCOMPARE(fileName.size(), name.size());
        {
            QFile file;
            QVERIFY(Orvanta::openLatin1Path(file, fileName, QIODevice::WriteOnly));
            QCOMPARE(file.write("first\n"), 6);
        }
        {
            QFile file;
            QVERIFY(
                Orvanta::openLatin1Path(file, fileName, QIODevice::WriteOnly | QIODevice::Append));
            QCOMPARE(file.write("second\n"), 7);
        }
        QFile file;
        QVERIFY(Orvanta::openLatin1Path(file, fileName, QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("first\nsecond\n"));
        // The same bytes, as UTF-8 names them.
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files),
                 QStringList{QStringLiteral("journal-\u00e9.log")});

        QFile truncated;
        QVERIFY(Orvanta::openLatin1Path(truncated, fileName, QIODevice::WriteOnly));
        truncated.close();
        QCOMPARE(QFileInfo(QString::fromUtf8(name)).size(), 0);
    }

    void openLatin1PathRefusesADirectoryAndAMissingFile()
    {
        QTemporaryDir dir;
        QFile directory;
        QVERIFY(!Orvanta::openLatin1Path(directory, dir.path(), QIODevice::ReadOnly));
        QVERIFY(!directory.isOpen());
        QFile missing;
        QVERIFY(!Orvanta::openLatin1Path(missing, dir.filePath(QStringLiteral("missing")),
                                         QIODevice::ReadOnly));
        QVERIFY(!missing.isOpen());
    }

    void escapeForLog_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("escaped");
        QTest::newRow("plain text stays")
            << QString::fromLatin1("/dev/input/event5") << QString::fromLatin1("/dev/input/event5");
        QTest::newRow("empty text stays") << QString::fromLatin1("") << QString::fromLatin1("");
        QTest::newRow("a line break") << QString::fromLatin1("/dev/input/event5\n[forged] line")
                                      << QString::fromLatin1("/dev/input/event5\\n[forged] line");
        QTest::newRow("a carriage return")
            << QString::fromLatin1("a\rb") << QString::fromLatin1("a\\x0db");
        QTest::newRow("a tab") << QString::fromLatin1("a\tb") << QString::fromLatin1("a\\tb");
        QTest::newRow("a backslash, so no escape can be faked")
            << QString::fromLatin1("a\\nb") << QString::fromLatin1("a\\\\nb");
        QTest::newRow("a NUL character") << QString(QChar(0)) << QString::fromLatin1("\\x00");
        QTest::newRow("an escape character")
            << QString::fromLatin1("\x1b[31mred") << QString::fromLatin1("\\x1b[31mred");
        QTest::newRow("the last control character")
            << QString::fromLatin1("\x1f") << QString::fromLatin1("\\x1f");
        QTest::newRow("DEL") << QString::fromLatin1("\x7f") << QString::fromLatin1("\\x7f");
        QTest::newRow("a blank and a tilde stay")
            << QString::fromLatin1(" ~") << QString::fromLatin1(" ~");
        QTest::newRow("Latin-1 characters stay")
            << QString::fromLatin1("caf\xe9 \x80\xff") << QString::fromLatin1("caf\xe9 \x80\xff");
        QTest::newRow("other characters stay") << QString::fromUtf8("\u20ac \u00e9t\u00e9")
                                               << QString::fromUtf8("\u20ac \u00e9t\u00e9");
    }

    void escapeForLog()
    {
        QFETCH(QString, text);
        QFETCH(QString, escaped);
        QCOMPARE(Orvanta::escapeForLog(text), escaped);
    }
};

QTEST_GUILESS_MAIN(UtilTest)
#include "test_util.moc"
