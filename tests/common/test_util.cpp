#include "common/Util.h"

#include <QDateTime>
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
};

QTEST_GUILESS_MAIN(UtilTest)
#include "test_util.moc"
