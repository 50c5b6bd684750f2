// The room's settings file: name, location, displays named per seat, and one
// Warning per broken line.
#include "LogCapture.h"
#include "TestFiles.h"

#include "seats/SeatsConfig.h"

#include <QTemporaryDir>
#include <QtTest>

using Displays = QMap<QString, int>;

class SeatsConfigTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { log.clear(); }

    void aMissingFileIsAnEmptyConfiguration()
    {
        SeatsConfig config(dir.filePath(QStringLiteral("absent.conf")));
        QVERIFY(config.load());
        QVERIFY(config.getName().isEmpty());
        QVERIFY(config.getLocation().isEmpty());
        QVERIFY(config.getDisplays().isEmpty());
        QVERIFY(log.entries().isEmpty());
    }

    void lines_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("location");
        QTest::addColumn<Displays>("displays");
        QTest::addColumn<QStringList>("warnings");

        QTest::newRow("a whole file")
            << QByteArray("# The library\nname = Library\n\n  location =  First floor, west  \n"
                          "display seat1 = :3\ndisplay   seat-2=:4.0\n")
            << "Library"
            << "First floor, west" << Displays{{"seat1", 3}, {"seat-2", 4}} << QStringList();
        QTest::newRow("UTF-8 and a sign that is no comment inside a value")
            << QByteArray("name = Biblioth\xc3\xa8que #2\n") << QString::fromUtf8("Bibliothèque #2")
            << "" << Displays{} << QStringList();
        QTest::newRow("an empty name is a name")
            << QByteArray("name =\nname = Second\n") << ""
            << "" << Displays{} << QStringList{":2: line ignored: the name is set already"};
        QTest::newRow("a line without equals sign")
            << QByteArray("name Library\nlocation = Here\n") << ""
            << "Here" << Displays{} << QStringList{":1: line ignored: it has no \"=\""};
        QTest::newRow("an unknown setting")
            << QByteArray("colour = blue\nscreen seat1 = :2\n") << ""
            << "" << Displays{}
            << QStringList{":1: line ignored: expected \"name = ...\", \"location = ...\" or "
                           "\"display SEAT = :N\"",
                           ":2: line ignored: expected \"name = ...\", \"location = ...\" or "
                           "\"display SEAT = :N\""};
        QTest::newRow("a display for no valid seat")
            << QByteArray("display = :1\ndisplay seat/1 = :1\n") << ""
            << "" << Displays{}
            << QStringList{":1: line ignored: expected \"name = ...\", \"location = ...\" or "
                           "\"display SEAT = :N\"",
                           ":2: line ignored: 'seat/1' is not a seat name"};
        QTest::newRow("displays that are no local X displays")
            << QByteArray("display seat1 = 3\ndisplay seat2 = host:3\ndisplay seat3 = :99999\n"
                          "display seat4 = :wayland-0\n")
            << ""
            << "" << Displays{}
            << QStringList{":1: line ignored: '3' is not a local X display \":N\"",
                           ":2: line ignored: 'host:3' is not a local X display \":N\"",
                           ":3: line ignored: ':99999' is not a local X display \":N\"",
                           ":4: line ignored: ':wayland-0' is not a local X display \":N\""};
        QTest::newRow("a seat's display twice: the first counts")
            << QByteArray("display seat1 = :1\ndisplay seat1 = :2\n") << ""
            << "" << Displays{{"seat1", 1}}
            << QStringList{":2: line ignored: the display of seat1 is set already"};
    }
    void lines()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, name);
        QFETCH(QString, location);
        QFETCH(Displays, displays);
        QFETCH(QStringList, warnings);
        const QString file = dir.filePath(QStringLiteral("seats.conf"));
        QVERIFY(writeFile(file, content));
        SeatsConfig config(file);
        QVERIFY(config.load());
        QCOMPARE(config.getName(), name);
        QCOMPARE(config.getLocation(), location);
        QCOMPARE(config.getDisplays(), displays);
        QStringList logged;
        for (const LogCapture::Entry& entry : log.entries()) {
            QCOMPARE(entry.level, Orvanta::Logger::LEVEL_WARNING);
            QCOMPARE(entry.file, QStringLiteral("SeatsConfig"));
            QVERIFY(entry.message.startsWith(file + ":"));
            logged << entry.message.mid(file.size());
        }
        QCOMPARE(logged, warnings);
    }

    void theTagsAreTheRoomsForEveryStation()
    {
        const QString file = dir.filePath(QStringLiteral("tags.conf"));
        QVERIFY(writeFile(file, "name = Room 12\nlocation = Second floor\n"));
        SeatsConfig config(file);
        QVERIFY(config.load());
        QCOMPARE(config.tag(QStringLiteral("name")), QStringLiteral("Room 12"));
        QCOMPARE(config.tag(QStringLiteral("location")), QStringLiteral("Second floor"));
        QCOMPARE(config.tag(QStringLiteral("Name")), QString());
        QCOMPARE(config.tag(QStringLiteral("station")), QString());
    }

    void reloadingForgetsTheOldSettings()
    {
        const QString file = dir.filePath(QStringLiteral("reload.conf"));
        QVERIFY(writeFile(file, "name = Old\ndisplay seat1 = :1\n"));
        SeatsConfig config(file);
        QVERIFY(config.load());
        QVERIFY(writeFile(file, "location = New\n"));
        QVERIFY(config.load());
        QCOMPARE(config.getName(), QString());
        QCOMPARE(config.getLocation(), QStringLiteral("New"));
        QCOMPARE(config.displayOf(QStringLiteral("seat1")), -1);
    }

    void displayNumbers_data()
    {
        QTest::addColumn<QString>("display");
        QTest::addColumn<int>("number");
        QTest::newRow(":0") << ":0" << 0;
        QTest::newRow(":12") << ":12" << 12;
        QTest::newRow("with a screen") << ":1.0" << 1;
        QTest::newRow("the highest") << ":32767" << 32767;
        QTest::newRow("too high") << ":32768" << -1;
        QTest::newRow("empty") << "" << -1;
        QTest::newRow("no colon") << "1" << -1;
        QTest::newRow("a host") << "localhost:10" << -1;
        QTest::newRow("a blank") << ": 1" << -1;
        QTest::newRow("a sign") << ":-1" << -1;
    }
    void displayNumbers()
    {
        QFETCH(QString, display);
        QFETCH(int, number);
        QCOMPARE(SeatsConfig::displayNumber(display), number);
    }

private:
    QTemporaryDir dir;
    LogCapture log;
};

QTEST_GUILESS_MAIN(SeatsConfigTest)
#include "test_seats_config.moc"
