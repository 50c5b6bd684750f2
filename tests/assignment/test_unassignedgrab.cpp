#include "assignment/UnassignedGrab.h"

#include <QtTest>

#include <vector>

using Ids = std::vector<UnassignedGrab::DeviceId>;
using Changes = std::vector<UnassignedGrab::Change>;

Q_DECLARE_METATYPE(Ids)
Q_DECLARE_METATYPE(Changes)

namespace {
UnassignedGrab::Change take(UnassignedGrab::DeviceId device)
{
    return {device, true};
}
UnassignedGrab::Change release(UnassignedGrab::DeviceId device)
{
    return {device, false};
}

QByteArray describe(const Changes& changes)
{
    QByteArray text;
    for (const UnassignedGrab::Change& change : changes) {
        text += (change.hold ? "take " : "release ") + QByteArray::number(change.device) + "; ";
    }
    return text;
}
} // namespace

class UnassignedGrabTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void changes_data()
    {
        QTest::addColumn<bool>("overlayDrawn");
        QTest::addColumn<Ids>("unassigned");
        QTest::addColumn<Ids>("held");
        QTest::addColumn<Ids>("keyDown");
        QTest::addColumn<Changes>("expected");

        QTest::newRow("no overlay, nothing held: nothing to do")
            << false << Ids{1, 2} << Ids{} << Ids{} << Changes{};
        QTest::newRow("an overlay is drawn: every unassigned device is taken")
            << true << Ids{1, 2} << Ids{} << Ids{} << Changes{take(1), take(2)};
        QTest::newRow("an overlay is drawn, all held already: nothing to do")
            << true << Ids{1, 2} << Ids{1, 2} << Ids{} << Changes{};
        QTest::newRow("a new unassigned device while drawn is taken")
            << true << Ids{1, 2, 3} << Ids{1, 2} << Ids{} << Changes{take(3)};
        QTest::newRow("no overlay any more: every held device is let go")
            << false << Ids{1, 2} << Ids{1, 2} << Ids{} << Changes{release(1), release(2)};
        QTest::newRow("a claimed device leaves the set and is let go while drawn")
            << true << Ids{2} << Ids{1, 2} << Ids{} << Changes{release(1)};
        QTest::newRow("releases come before takes")
            << true << Ids{2, 3} << Ids{1, 2} << Ids{} << Changes{release(1), take(3)};
        QTest::newRow("a device with a key down is not taken yet")
            << true << Ids{1, 2} << Ids{} << Ids{2} << Changes{take(1)};
        QTest::newRow("a held device with a key down stays held")
            << true << Ids{1} << Ids{1} << Ids{1} << Changes{};
        QTest::newRow("a device with a key down is let go when no overlay is drawn")
            << false << Ids{1} << Ids{1} << Ids{1} << Changes{release(1)};
        QTest::newRow("no unassigned device: nothing is taken")
            << true << Ids{} << Ids{} << Ids{} << Changes{};
    }

    void changes()
    {
        QFETCH(bool, overlayDrawn);
        QFETCH(Ids, unassigned);
        QFETCH(Ids, held);
        QFETCH(Ids, keyDown);
        QFETCH(Changes, expected);
        UnassignedGrab grab;
        QCOMPARE(describe(grab.changes(overlayDrawn, unassigned, held, keyDown)),
                 describe(expected));
    }

    void aRefusedDeviceIsNotTriedAgainInTheSameOverlayPeriod()
    {
        UnassignedGrab grab;
        QCOMPARE(describe(grab.changes(true, {1, 2}, {}, {})), describe({take(1), take(2)}));
        grab.refused(1);
        // Every later update of this period asks again: device 1 is left alone.
        QCOMPARE(describe(grab.changes(true, {1, 2}, {2}, {})), describe({}));
        QCOMPARE(describe(grab.changes(true, {1, 2, 3}, {2}, {})), describe({take(3)}));
    }

    void aRefusedDeviceIsTriedAgainInTheNextOverlayPeriod()
    {
        UnassignedGrab grab;
        grab.changes(true, {1}, {}, {});
        grab.refused(1);
        QCOMPARE(describe(grab.changes(true, {1}, {}, {})), describe({}));
        // No overlay for a moment ends the period.
        QCOMPARE(describe(grab.changes(false, {1}, {}, {})), describe({}));
        QCOMPARE(describe(grab.changes(true, {1}, {}, {})), describe({take(1)}));
    }

    void aRefusalOfAnotherDeviceLeavesTheOthersAlone()
    {
        UnassignedGrab grab;
        grab.refused(7);
        QCOMPARE(describe(grab.changes(true, {1, 7}, {}, {})), describe({take(1)}));
    }
};

QTEST_GUILESS_MAIN(UnassignedGrabTest)
#include "test_unassignedgrab.moc"
