// The daemon and its logind bridge as a multiseat PC runs them: the project's
// two Debian packages installed in a Debian 12 guest under systemd, seat1 made
// of the second card, an Xvfb per seat named in seats.conf, and two USB
// keyboards and two USB tablets played through QMP. The slots run in order on
// one guest, each going on from the state the one before left:
//   after boot      every device unassigned, each station asks for its key
//   X servers       a real X server of seat1 and one of seat0, beside the
//                   Xvfbs, as display managers start them: B is seat0's
//   claims          F2 on keyboard B gives it to seat1, seat1's X server
//                   takes it and seat0's lets it go, a click on mouse B
//                   completes the station, a combination typed on B runs
//                   with STATION_ID=1
//   grab            keys of the unassigned keyboard A reach no other reader
//   replug          another keyboard in B's port is seat1's at once
//   reboot          the assignments hold; --release brings the prompts back
//   refusal         without the polkit rule a claim fails with one Error
// Every wait in the guest is bounded at 20 s; the measured times are printed.
#include "ComposedPicture.h"
#include "ScreenPicture.h"
#include "SeatVm.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr int bootTimeoutMs = 300000;
constexpr int rebootTimeoutMs = 180000;
constexpr int waitMs = 20000;

const QString keyboardA = QStringLiteral("gpuA");
const QString deviceB = QStringLiteral("gpuB");
const QString seatA = QStringLiteral(":10");
const QString seatB = QStringLiteral(":11");
const QString stationIdFile = QStringLiteral("/tmp/seatvm-station-id");
// The displays of the real X servers of seat1 and seat0.
const QString xServerOfSeat1 = QStringLiteral("12");
const QString xServerOfSeat0 = QStringLiteral("13");
// What seats.conf in the guest names the room (run-seat-vm.sh).
const QString roomName = QStringLiteral("Seat VM");
const QString roomLocation = QStringLiteral("Emulated room");

// The USB ports of the devices (run-seat-vm.sh): keyboards A and B, tablets A and B.
constexpr int portKeyboardA = 1;
constexpr int portKeyboardB = 2;
constexpr int portMouseB = 4;

QString portPath(int port)
{
    return QStringLiteral("/sys/devices/pci0000:00/0000:00:04.0/usb1/1-%1").arg(port);
}

QString xServerUnit(const QString& display)
{
    return QStringLiteral("seatvm-xorg-%1").arg(display);
}

QString xServerLog(const QString& display)
{
    return QStringLiteral("/var/log/seatvm-xorg-%1.log").arg(display);
}

// A guest script that exits 0 when the X server's log says that it added the
// input device `node` from udev.
QString xServerAddedScript(const QString& display, const QString& node)
{
    return QStringLiteral("grep -F 'config/udev: Adding input device' %1 | grep -qF '(%2)'")
        .arg(xServerLog(display), node);
}

// A guest script that exits 0 when the X server runs and has the input
// device `node` open (`open`) or not (`!open`): an X server reads the devices
// it uses and closes the ones it removed.
QString xServerOpenScript(const QString& display, const QString& node, bool open)
{
    return QStringLiteral("files=$(ls -l /proc/$(systemctl show -P MainPID %1)/fd) && "
                          "%2 grep -q ' %3$' <<<\"$files\"")
        .arg(xServerUnit(display), open ? QString() : QStringLiteral("!"), node);
}

// A station's prompt as the daemon draws it.
OverlayContent prompt(int station, OverlayContent::Step step, int available, int assigned)
{
    OverlayContent content;
    content.step = step;
    content.stationId = station;
    content.language = ComposedPicture::installedLanguage(QStringLiteral("en"));
    content.assignmentKey = step == OverlayContent::STEP_KEYBOARD
                                ? ComposedPicture::assignmentKeyOf(station)
                                : QStringLiteral("BTN_LEFT");
    content.stationName = roomName;
    content.stationLocation = roomLocation;
    content.available = available;
    content.assigned = assigned;
    return content;
}

bool isBlank(const QImage& screen)
{
    const QImage pixels = screen.convertToFormat(QImage::Format_RGB32);
    const QRgb first = pixels.pixel(0, 0);
    for (int y = 0; y < pixels.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(pixels.constScanLine(y));
        for (int x = 0; x < pixels.width(); ++x) {
            if (line[x] != first) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

class SeatVmSeatsTest : public QObject
{
    Q_OBJECT

private:
    // Runs `script` in the guest; fails the test when it does not exit 0.
    QString guest(const QString& script)
    {
        const SeatVm::Reply reply = vm.run(script);
        if (reply.status != 0) {
            QTest::qFail(qPrintable(QStringLiteral("'%1' ended with %2:\n%3")
                                        .arg(script)
                                        .arg(reply.status)
                                        .arg(reply.output)),
                         __FILE__, __LINE__);
            return QString();
        }
        return reply.output;
    }

    // Waits until `script` exits 0 and prints how long that took.
    bool waitFor(const QString& what, const QString& script)
    {
        QElapsedTimer waited;
        waited.start();
        const bool done = vm.waitUntil(script, waitMs);
        qInfo("%s: %s after %lld ms", qPrintable(what), done ? "seen" : "NOT seen",
              waited.elapsed());
        return done;
    }

    QString eventNodeOnPort(int port)
    {
        return vm
            .run(QStringLiteral("for e in /sys/class/input/event*; do "
                                "case $(readlink -f $e) in */usb1/1-%1/*) "
                                "echo /dev/input/${e##*/};; esac; done")
                     .arg(port))
            .output.trimmed();
    }

    // The seat of each keyboard and mouse by its port, as --status --json gives it.
    QMap<QString, QString> seatsByPort()
    {
        const SeatVm::Reply reply = vm.run(QStringLiteral("orvanta-selvane-seats --status --json"));
        QMap<QString, QString> seats;
        const QJsonArray devices =
            QJsonDocument::fromJson(reply.output.toUtf8()).object().value("devices").toArray();
        for (const QJsonValue& device : devices) {
            seats.insert(device["port"].toString(), device["seat"].toString());
        }
        return seats;
    }

    QImage screenOf(const QString& display)
    {
        const QString name = QStringLiteral("screen-%1.png").arg(++screens);
        const SeatVm::Reply reply = vm.run(
            QStringLiteral(SEATVM_SCREENSHOT " %1 %2").arg(display, vm.guestSharedPath(name)));
        return reply.status == 0 ? QImage(vm.hostSharedPath(name)) : QImage();
    }

    // Waits until the display shows the prompt, and prints how long that took.
    bool waitForPrompt(const QString& display, const OverlayContent& content)
    {
        QElapsedTimer waited;
        waited.start();
        const QDeadlineTimer deadline(waitMs);
        QImage shot;
        QImage expected;
        bool shows = false;
        while (!shows && !deadline.hasExpired()) {
            shot = screenOf(display);
            if (expected.isNull() && !shot.isNull()) {
                expected = ComposedPicture::composedPicture(content, shot.size())
                               .copy(ComposedPicture::visiblePart(shot.size()));
            }
            shows = !shot.isNull() && ComposedPicture::showsPicture(
                                          shot.convertToFormat(QImage::Format_RGB32)
                                              .copy(ComposedPicture::visibleOnScreen(shot.size())),
                                          expected);
        }
        qInfo("the prompt of station %d on %s: %s after %lld ms", content.stationId,
              qPrintable(display), shows ? "shown" : "NOT shown", waited.elapsed());
        if (!shows) {
            qInfo("the screen: %s, the picture expected: %s",
                  qPrintable(ScreenPicture::saveForInspection(shot, "seatvm-screen")),
                  qPrintable(ScreenPicture::saveForInspection(expected, "seatvm-expected")));
        }
        return shows;
    }

    // Waits until the display shows nothing but its background.
    bool waitForNoPrompt(const QString& display)
    {
        QElapsedTimer waited;
        waited.start();
        const QDeadlineTimer deadline(waitMs);
        QImage shot;
        bool blank = false;
        while (!blank && !deadline.hasExpired()) {
            shot = screenOf(display);
            blank = !shot.isNull() && isBlank(shot);
        }
        qInfo("no prompt on %s: %s after %lld ms", qPrintable(display), blank ? "seen" : "NOT seen",
              waited.elapsed());
        if (!blank) {
            qInfo("the screen: %s",
                  qPrintable(ScreenPicture::saveForInspection(shot, "seatvm-not-blank")));
        }
        return blank;
    }

    // Starts a real X server of `seat` on `display` as a display manager
    // would (the dummy driver's screen, its seat's input devices from udev),
    // and waits until it takes clients.
    bool startXServer(const QString& display, const QString& seat)
    {
        guest(QStringLiteral("systemd-run --quiet --unit=%1 /usr/lib/xorg/Xorg :%2 -seat %3 "
                             "-config /etc/X11/seatvm-dummy.conf -noreset -nolisten tcp "
                             "-logfile %4")
                  .arg(xServerUnit(display), display, seat, xServerLog(display)));
        const bool up =
            waitFor(QStringLiteral("the X server of %1 on :%2").arg(seat, display),
                    QStringLiteral(SEATVM_SCREENSHOT " :%1 /tmp/seatvm-xorg.png").arg(display));
        if (!up) {
            qInfo("its log:\n%s",
                  qPrintable(vm.run(QStringLiteral("cat %1; systemctl status %2")
                                        .arg(xServerLog(display), xServerUnit(display)))
                                 .output));
        }
        return up;
    }

    QString bridgeLog()
    {
        return vm.run(QStringLiteral("journalctl -b -o cat --no-pager -u orvanta-selvane-seats"))
            .output;
    }

private Q_SLOTS:
    void initTestCase()
    {
        run.start();
        QVERIFY(packages.isValid());
        QProcess cpack;
        cpack.setProcessChannelMode(QProcess::MergedChannels);
        cpack.start(QStringLiteral(SEATVM_CPACK),
                    {QStringLiteral("-G"), QStringLiteral("DEB"), QStringLiteral("-B"),
                     packages.path(), QStringLiteral("--config"),
                     QStringLiteral(SEATVM_CPACK_CONFIG)});
        QVERIFY2(cpack.waitForFinished(120000) && cpack.exitCode() == 0,
                 cpack.readAll().constData());
        QStringList debs;
        for (const QString& name :
             QDir(packages.path()).entryList({QStringLiteral("*.deb")}, QDir::Files)) {
            debs.append(packages.filePath(name));
        }
        QVERIFY(!debs.isEmpty());
        QVERIFY2(ComposedPicture::installedLanguage(QStringLiteral("en")),
                 "no translation file in this process's data directory");

        QVERIFY2(vm.boot(QStringLiteral(SEATVM_WORK_DIR), QStringLiteral(SEATVM_BUILD_DIR), debs,
                         bootTimeoutMs),
                 qPrintable(vm.failure()));
        qInfo("the guest was up after %lld ms", vm.bootMs());
    }

    void theGuestHasTwoSeatsAndFourUsbInputDevices()
    {
        QCOMPARE(guest(QStringLiteral("loginctl list-seats --no-legend | sort | xargs")).trimmed(),
                 QStringLiteral("seat0 seat1"));
        for (int port = 1; port <= 4; ++port) {
            QVERIFY2(!eventNodeOnPort(port).isEmpty(), qPrintable(QString::number(port)));
        }
    }

    void afterBootEveryDeviceIsUnassignedAndEachStationAsksForItsKey()
    {
        QVERIFY(waitForPrompt(seatA, prompt(0, OverlayContent::STEP_KEYBOARD, 2, 0)));
        QVERIFY(waitForPrompt(seatB, prompt(1, OverlayContent::STEP_KEYBOARD, 2, 0)));
        const QMap<QString, QString> seats = seatsByPort();
        for (int port = 1; port <= 4; ++port) {
            QVERIFY2(seats.contains(portPath(port)), qPrintable(QString::number(port)));
            QCOMPARE(seats.value(portPath(port)), QString());
        }
    }

    void realXServersOfTheSeatsTakeTheirSeatsDevices()
    {
        // The daemon keeps drawing its prompts on the Xvfbs; these servers
        // only show which devices udev gives each seat's X server.
        QVERIFY(startXServer(xServerOfSeat1, QStringLiteral("seat1")));
        QVERIFY(startXServer(xServerOfSeat0, QStringLiteral("seat0")));
        // Keyboard B is unassigned, so seat0's as far as X servers go.
        const QString nodeB = eventNodeOnPort(portKeyboardB);
        QVERIFY(waitFor(QStringLiteral("keyboard B in seat0's X server"),
                        xServerAddedScript(xServerOfSeat0, nodeB) + QStringLiteral(" && ") +
                            xServerOpenScript(xServerOfSeat0, nodeB, true)));
        // Seat1's server took clients: it has looked at every device.
        QCOMPARE(vm.run(xServerAddedScript(xServerOfSeat1, nodeB)).status, 1);
        QCOMPARE(vm.run(xServerOpenScript(xServerOfSeat1, nodeB, false)).status, 0);
    }

    void f2OnKeyboardBAndAClickOnMouseBCompleteStationOne()
    {
        const QString nodeB = eventNodeOnPort(portKeyboardB);
        QVERIFY(vm.tapKeys(deviceB, {QStringLiteral("f2")}));
        QVERIFY(waitFor(
            QStringLiteral("keyboard B on seat1"),
            QStringLiteral("udevadm info -q property -n %1 | grep -qx ID_SEAT=seat1").arg(nodeB)));
        QVERIFY(guest(QStringLiteral("loginctl seat-status --no-pager seat1"))
                    .contains(portPath(portKeyboardB)));
        // The seats' X servers follow udev's events for the moved device.
        QVERIFY(waitFor(QStringLiteral("keyboard B in seat1's X server"),
                        xServerAddedScript(xServerOfSeat1, nodeB) + QStringLiteral(" && ") +
                            xServerOpenScript(xServerOfSeat1, nodeB, true)));
        QVERIFY(waitFor(QStringLiteral("keyboard B out of seat0's X server"),
                        xServerOpenScript(xServerOfSeat0, nodeB, false)));
        QVERIFY(waitForPrompt(seatB, prompt(1, OverlayContent::STEP_MOUSE, 2, 0)));

        // The bridge tells the daemon the keyboard's station once udev shows it.
        guest(QStringLiteral("rm -f %1").arg(stationIdFile));
        QVERIFY(vm.tapKeys(deviceB,
                           {QStringLiteral("ctrl"), QStringLiteral("alt"), QStringLiteral("s")}));
        QVERIFY(waitFor(QStringLiteral("the combination's command"),
                        QStringLiteral("test -s %1").arg(stationIdFile)));
        QCOMPARE(guest(QStringLiteral("cat %1").arg(stationIdFile)).trimmed(), QStringLiteral("1"));

        QVERIFY(vm.click(deviceB));
        const QString nodeMouseB = eventNodeOnPort(portMouseB);
        QVERIFY(waitFor(QStringLiteral("mouse B on seat1"),
                        QStringLiteral("udevadm info -q property -n %1 | grep -qx ID_SEAT=seat1")
                            .arg(nodeMouseB)));
        QVERIFY(waitFor(QStringLiteral("mouse B in seat1's X server"),
                        xServerAddedScript(xServerOfSeat1, nodeMouseB) + QStringLiteral(" && ") +
                            xServerOpenScript(xServerOfSeat1, nodeMouseB, true)));
        QVERIFY(waitForNoPrompt(seatB));

        // The X servers have shown what they show; the other slots run
        // without them.
        QElapsedTimer stopping;
        stopping.start();
        const SeatVm::Reply stopped =
            vm.run(QStringLiteral("systemctl stop %1 %2")
                       .arg(xServerUnit(xServerOfSeat1), xServerUnit(xServerOfSeat0)));
        qInfo("the X servers stopped after %lld ms", stopping.elapsed());
        QVERIFY2(stopped.status == 0, qPrintable(stopped.output));
    }

    void keysOfTheUnassignedKeyboardReachNoOtherReader()
    {
        // Station 0 still asks for a keyboard: A is unassigned and under its
        // prompt. B, now seat1's, is read the same way to show that the
        // readers read and the keys were sent.
        const QString nodeA = eventNodeOnPort(portKeyboardA);
        const QString nodeB = eventNodeOnPort(portKeyboardB);
        guest(QStringLiteral("rm -f /tmp/a.bytes /tmp/b.bytes; "
                             "timeout 20 cat %1 > /tmp/a.bytes & a=$!; "
                             "timeout 20 cat %2 > /tmp/b.bytes & b=$!; "
                             "echo $a $b > /tmp/readers; "
                             // Both readers have their node open before a key is sent.
                             "for i in $(seq 100); do "
                             "  ls -l /proc/$(pgrep -P $a)/fd /proc/$(pgrep -P $b)/fd 2>/dev/null "
                             "  | grep -c /dev/input/event | grep -qx 2 && exit 0; sleep 0.1; "
                             "done; exit 1")
                  .arg(nodeA, nodeB));
        QVERIFY(vm.tapKeys(keyboardA, {QStringLiteral("a")}));
        QVERIFY(vm.tapKeys(deviceB, {QStringLiteral("b")}));
        // A's key was sent first: by the time B's has arrived, A's would have too.
        QVERIFY(waitFor(QStringLiteral("keyboard B's key read"),
                        QStringLiteral("test $(stat -c %s /tmp/b.bytes) -ge 144")));
        const QString sizes =
            guest(QStringLiteral("kill $(cat /tmp/readers) 2>/dev/null; "
                                 "echo $(stat -c %s /tmp/a.bytes) $(stat -c %s /tmp/b.bytes)"));
        QCOMPARE(sizes.trimmed().section(QLatin1Char(' '), 0, 0), QStringLiteral("0"));
    }

    void anotherKeyboardInBsPortIsSeatOnesAtOnce()
    {
        QVERIFY(vm.qmp(R"({"execute": "device_del", "arguments": {"id": "kbdB"}})"));
        QVERIFY(waitFor(QStringLiteral("keyboard B gone"),
                        QStringLiteral("! test -e %1").arg(portPath(portKeyboardB))));
        const QString before = bridgeLog();
        QVERIFY(vm.qmp(R"({"execute": "device_add", "arguments": {"driver": "usb-kbd", )"
                       R"("id": "kbdB2", "bus": "xhci.0", "port": "2", "display": "gpuB"}})"));
        QVERIFY(waitFor(QStringLiteral("the new keyboard on seat1"),
                        QStringLiteral("for e in /sys/class/input/event*; do "
                                       "case $(readlink -f $e) in */usb1/1-2/*) "
                                       "udevadm info -q property -p $e | grep -qx ID_SEAT=seat1 "
                                       "&& exit 0;; esac; done; exit 1")));
        QVERIFY(waitForNoPrompt(seatB));
        const QString node = eventNodeOnPort(portKeyboardB);
        QVERIFY(waitFor(QStringLiteral("the daemon told of the new keyboard's station"),
                        QStringLiteral("journalctl -b -o cat -u orvanta-selvane-seats | grep -qF "
                                       "'deviceAddedToStation(%1, 1)'")
                            .arg(node)));
        const QString after = bridgeLog().mid(before.size());
        QVERIFY2(!after.contains(QStringLiteral("unassignedDeviceAdded(%1)").arg(node)),
                 qPrintable(after));
    }

    void theAssignmentsHoldAcrossARebootAndReleaseBringsThePromptsBack()
    {
        QVERIFY2(vm.reboot(rebootTimeoutMs), qPrintable(vm.failure()));
        qInfo("the guest was up again after %lld ms", vm.bootMs());
        // Station 0 asks once the daemon and the bridge run again; station 1,
        // complete, does not.
        QVERIFY(waitForPrompt(seatA, prompt(0, OverlayContent::STEP_KEYBOARD, 1, 1)));
        QVERIFY(waitForNoPrompt(seatB));
        // Nor was it asked for in this boot, not even for a moment.
        const QString log = bridgeLog();
        QVERIFY2(!log.contains(QStringLiteral("configureKeyboard(11,")) &&
                     !log.contains(QStringLiteral("configureMouse(11,")),
                 qPrintable(log));
        const QMap<QString, QString> seats = seatsByPort();
        QCOMPARE(seats.value(portPath(portKeyboardB)), QStringLiteral("seat1"));
        QCOMPARE(seats.value(portPath(portMouseB)), QStringLiteral("seat1"));
        QCOMPARE(seats.value(portPath(portKeyboardA)), QString());

        guest(QStringLiteral("orvanta-selvane-seats --release seat1"));
        QVERIFY(waitForPrompt(seatB, prompt(1, OverlayContent::STEP_KEYBOARD, 2, 0)));
        const QMap<QString, QString> released = seatsByPort();
        QCOMPARE(released.value(portPath(portKeyboardB)), QString());
        QCOMPARE(released.value(portPath(portMouseB)), QString());
    }

    void aRefusedAttachIsOneErrorAndThePromptStays()
    {
        // Without the package's polkit rule logind asks for an authorisation
        // that the service account cannot give.
        guest(QStringLiteral("rm $(grep -l org.freedesktop.login1.attach-device "
                             "/usr/share/polkit-1/rules.d/* /etc/polkit-1/rules.d/* 2>/dev/null) "
                             "&& systemctl restart polkit"));
        const QString before = bridgeLog();
        QVERIFY(vm.tapKeys(deviceB, {QStringLiteral("f2")}));
        QVERIFY(waitFor(QStringLiteral("keyboard B announced again"),
                        QStringLiteral("journalctl -b -o cat -u orvanta-selvane-seats | grep -qF "
                                       "'announced again after its failed attach'")));
        QVERIFY(waitForPrompt(seatB, prompt(1, OverlayContent::STEP_KEYBOARD, 2, 0)));
        QCOMPARE(seatsByPort().value(portPath(portKeyboardB)), QString());
        const QStringList errors = bridgeLog()
                                       .mid(before.size())
                                       .split(QLatin1Char('\n'))
                                       .filter(QStringLiteral("[Error]"));
        QCOMPARE(errors.size(), 1);
        QVERIFY2(errors.first().contains(QStringLiteral("AttachDevice")),
                 qPrintable(errors.first()));
        qInfo("the bridge's error: %s", qPrintable(errors.first()));
    }

    void cleanupTestCase()
    {
        vm.stop();
        qInfo("the whole run took %lld ms", run.elapsed());
    }

private:
    QElapsedTimer run;
    QTemporaryDir packages;
    SeatVm vm;
    int screens = 0;
};

QTEST_MAIN(SeatVmSeatsTest)
#include "test_seatvm_seats.moc"
