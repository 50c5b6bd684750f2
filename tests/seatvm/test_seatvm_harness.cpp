// The seat VM itself, before anything of the project runs in it: the guest
// comes up with logind and udev, has two graphics cards and the four USB
// input devices on ports 1 to 4 (each with the ID_FOR_SEAT that logind needs
// to attach it), and a key sent to one display device reaches only the
// keyboard bound to it.
#include "SeatVm.h"

#include <QtTest>

namespace {
constexpr int bootTimeoutMs = 300000;

// The event node of the USB input device on `port` (1 to 4).
QString eventNodeOnPort(SeatVm& vm, int port)
{
    const SeatVm::Reply reply = vm.run(
        QStringLiteral("for e in /sys/class/input/event*; do "
                       "case $(readlink -f $e) in */usb1/1-%1/*) echo /dev/input/${e##*/};; esac; "
                       "done")
            .arg(port));
    return reply.output.trimmed();
}
} // namespace

class SeatVmHarnessTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(vm.boot(QStringLiteral(SEATVM_WORK_DIR), QStringLiteral(SEATVM_BUILD_DIR), {},
                         bootTimeoutMs),
                 qPrintable(vm.failure()));
        qInfo("the guest was up after %lld ms", vm.bootMs());
    }

    void theGuestHasTwoCardsAndFourUsbInputDevices()
    {
        const SeatVm::Reply cards = vm.run(QStringLiteral("ls -d /sys/class/drm/card? | wc -l"));
        QCOMPARE(cards.output.trimmed(), QStringLiteral("2"));
        for (int port = 1; port <= 4; ++port) {
            const QString node = eventNodeOnPort(vm, port);
            QVERIFY2(!node.isEmpty(), qPrintable(QString::number(port)));
            const SeatVm::Reply parent = vm.run(
                QStringLiteral("udevadm info -q property -p $(dirname $(readlink -f "
                               "/sys/class/input/%1)) | grep ^ID_FOR_SEAT=")
                    .arg(node.section('/', -1)));
            QCOMPARE(parent.status, 0);
        }
    }

    void aKeyReachesOnlyTheKeyboardOfItsDisplay()
    {
        const QString a = eventNodeOnPort(vm, 1);
        const QString b = eventNodeOnPort(vm, 2);
        // Both nodes are read for 5 s in the background while F2 goes to display B.
        const SeatVm::Reply readers = vm.run(
            QStringLiteral("rm -f /tmp/a /tmp/b; (timeout 5 cat %1 | wc -c > /tmp/a) & "
                           "(timeout 5 cat %2 | wc -c > /tmp/b) & sleep 0.5")
                .arg(a, b));
        QCOMPARE(readers.status, 0);
        QVERIFY(vm.tapKey(QStringLiteral("gpuB"), QStringLiteral("f2")));
        QVERIFY(vm.waitUntil(QStringLiteral("test -s /tmp/a && test -s /tmp/b")));
        const SeatVm::Reply counts = vm.run(QStringLiteral("echo $(cat /tmp/a) $(cat /tmp/b)"));
        // A key's press and release: scan code, key and frame end each.
        QCOMPARE(counts.output.trimmed(), QStringLiteral("0 144"));
    }

    void cleanupTestCase() { vm.stop(); }

private:
    SeatVm vm;
};

QTEST_GUILESS_MAIN(SeatVmHarnessTest)
#include "test_seatvm_harness.moc"
