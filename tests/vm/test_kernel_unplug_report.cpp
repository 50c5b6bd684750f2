// What a reader of an evdev node sees when its device goes away with keys
// held, compared with a person's release. The daemon tells the two apart by
// these facts, so they are checked on the real kernel here.
#include "UinputTestMain.h"

#include <QElapsedTimer>
#include <QVector>

#include <linux/input.h>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {
struct Record
{
    int type;
    int code;
    int value;
};

// Reads until a SYN_REPORT ends a frame, the read fails, or the deadline passes.
// Returns the frame's records; `error` gets the errno of a failed read.
QVector<Record> readFrame(int fd, int& error, int timeoutMs = 2000)
{
    QVector<Record> frame;
    error = 0;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        pollfd pending{fd, POLLIN, 0};
        if (poll(&pending, 1, 50) <= 0) {
            continue;
        }
        input_event event{};
        const ssize_t bytes = read(fd, &event, sizeof event);
        if (bytes == -1) {
            if (errno == EAGAIN) {
                continue;
            }
            error = errno;
            return frame;
        }
        frame.append({event.type, event.code, event.value});
        if (event.type == EV_SYN && event.code == SYN_REPORT) {
            return frame;
        }
    }
    return frame;
}
} // namespace

class KernelUnplugReportTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void personsReleaseEndsWithAPlainSynReport()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        const int fd = open(qPrintable(keyboard.devicePath()), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        QVERIFY(fd != -1);
        QVERIFY(keyboard.press(KEY_LEFTCTRL));
        QVERIFY(keyboard.press(KEY_F1));
        // Both released in one frame, as a quick hand on a keyboard without
        // scan codes can do.
        QVERIFY(keyboard.send(EV_KEY, KEY_F1, 0));
        QVERIFY(keyboard.send(EV_KEY, KEY_LEFTCTRL, 0));
        QVERIFY(keyboard.sync());
        int error = 0;
        readFrame(fd, error);
        readFrame(fd, error);
        const QVector<Record> release = readFrame(fd, error);
        QCOMPARE(error, 0);
        QCOMPARE(release.size(), 3);
        QCOMPARE(release.last().type, EV_SYN);
        QCOMPARE(release.last().value, 0);
        close(fd);
    }

    void unplugReleasesEveryHeldKeyInOneFrameMarkedByTheKernel()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        const int fd = open(qPrintable(keyboard.devicePath()), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        QVERIFY(fd != -1);
        QVERIFY(keyboard.press(KEY_LEFTCTRL));
        QVERIFY(keyboard.press(KEY_F1));
        int error = 0;
        QCOMPARE(readFrame(fd, error).size(), 2);
        QCOMPARE(readFrame(fd, error).size(), 2);

        // A reader waiting in poll() while the device goes away, as the daemon's
        // socket notifier does.
        QVector<Record> report;
        int reportError = 0;
        QElapsedTimer clock;
        qint64 reportMs = -1;
        qint64 failureMs = -1;
        clock.start();
        std::thread reader([&] {
            report = readFrame(fd, reportError);
            reportMs = clock.elapsed();
            QVector<Record> rest = readFrame(fd, reportError);
            failureMs = clock.elapsed();
            report += rest;
        });
        QVERIFY(keyboard.unplug());
        reader.join();
        QStringList seen;
        for (const Record& record : report) {
            seen << QString::asprintf("%d/%d/%d", record.type, record.code, record.value);
        }
        qInfo("unplug report: %s at %lld ms, then errno %d at %lld ms", qPrintable(seen.join(' ')),
              reportMs, reportError, failureMs);
        QCOMPARE(report.size(), 3);
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(report.at(i).type, EV_KEY);
            QCOMPARE(report.at(i).value, 0);
        }
        QCOMPARE(report.last().type, EV_SYN);
        QCOMPARE(report.last().code, SYN_REPORT);
        QCOMPARE(report.last().value, 1);
        QCOMPARE(reportError, ENODEV);
        close(fd);
    }
};

SELVANE_UINPUT_TEST_MAIN(KernelUnplugReportTest)
#include "test_kernel_unplug_report.moc"
