// Releasing a seat: logind's rules that give the seat a keyboard's or mouse's
// port are removed, those of graphics cards and other seats kept, and udev is
// asked to evaluate the released devices again through their uevent files.
// The rules directory and the sysfs tree are temporary directories.
#include "LogCapture.h"
#include "TestFiles.h"

#include "seats/system/SeatRules.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

namespace {
QString ruleText(const QString& forSeat, const QString& seat)
{
    return QStringLiteral("TAG==\"seat\", ENV{ID_FOR_SEAT}==\"%1\", ENV{ID_SEAT}=\"%2\"\n")
        .arg(forSeat, seat);
}

QString usbTag(int port)
{
    return QStringLiteral("usb-pci-0000_00_05_0-usb-0_%1").arg(port);
}

QString ruleName(const QString& tag)
{
    return QStringLiteral("72-seat-") + tag + QStringLiteral(".rules");
}
} // namespace

class SeatRulesTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    QString rulesDir;
    QString sysfs;

    bool writeRule(const QString& name, const QString& text)
    {
        return writeFile(QDir(rulesDir).filePath(name), text.toUtf8());
    }

    bool ruleExists(const QString& name) const
    {
        return QFileInfo::exists(QDir(rulesDir).filePath(name));
    }

    // A device directory with an empty uevent file, as sysfs has one.
    QString sysDevice(const QString& path)
    {
        const QString full = sysfs + path;
        return QDir().mkpath(full) && writeFile(full + QStringLiteral("/uevent"), {}) ? full
                                                                                      : QString();
    }

    // A USB keyboard or mouse on the controller's port `port`, with its port,
    // input device and event node in the sysfs tree.
    InputDeviceInfo usbDevice(int port, int event, bool keyboard, const QString& seat)
    {
        InputDeviceInfo device;
        device.port =
            sysDevice(QStringLiteral("/devices/pci0000:00/0000:00:05.0/usb1/1-%1").arg(port));
        sysDevice(
            QStringLiteral("/devices/pci0000:00/0000:00:05.0/usb1/1-%1/1-%1:1.0/input/input%2")
                .arg(port)
                .arg(event));
        device.syspath = sysDevice(
            QStringLiteral(
                "/devices/pci0000:00/0000:00:05.0/usb1/1-%1/1-%1:1.0/input/input%2/event%2")
                .arg(port)
                .arg(event));
        device.devnode = QStringLiteral("/dev/input/event%1").arg(event);
        device.keyboard = keyboard;
        device.mouse = !keyboard;
        device.forSeat = QStringLiteral("input-pci-0000_00_05_0-usb-0_%1_1_0").arg(port);
        device.portForSeat = usbTag(port);
        device.seat = seat;
        return device;
    }

    QByteArray ueventOf(const QString& syspath) const
    {
        return readFile(syspath + QStringLiteral("/uevent"));
    }

    // Keyboard A on port 1 (seat0's rule), keyboard B and mouse B on ports 2
    // and 3 (seat1's rules), card1 on seat1 (its rule), a rule of seat1 for
    // port 9 where nothing is plugged in, and files that are not logind's.
    SystemSnapshot room()
    {
        SystemSnapshot snapshot;
        snapshot.inputDevices = {usbDevice(1, 2, true, QStringLiteral("seat0")),
                                 usbDevice(2, 3, true, QStringLiteral("seat1")),
                                 usbDevice(3, 4, false, QStringLiteral("seat1"))};
        GraphicsCardInfo card;
        card.syspath = sysDevice(QStringLiteral("/devices/pci0000:00/0000:00:04.0/drm/card1"));
        card.seat = QStringLiteral("seat1");
        card.masterOfSeat = true;
        card.forSeat = QStringLiteral("drm-pci-0000_00_04_0");
        snapshot.graphicsCards = {card};
        for (int port : {1, 2, 3, 9}) {
            const QString seat = port == 1 ? QStringLiteral("seat0") : QStringLiteral("seat1");
            writeRule(ruleName(usbTag(port)), ruleText(usbTag(port), seat));
        }
        writeRule(ruleName(card.forSeat), ruleText(card.forSeat, QStringLiteral("seat1")));
        writeRule(QStringLiteral("70-local.rules"), ruleText(usbTag(2), QStringLiteral("seat1")));
        writeRule(ruleName(QStringLiteral("mixed")),
                  ruleText(usbTag(2), QStringLiteral("seat1")) +
                      ruleText(usbTag(3), QStringLiteral("seat1")));
        return snapshot;
    }

private Q_SLOTS:
    void init()
    {
        QVERIFY(dir.isValid());
        QDir(dir.path()).removeRecursively();
        rulesDir = dir.filePath(QStringLiteral("rules.d"));
        sysfs = dir.filePath(QStringLiteral("sys"));
        QVERIFY(QDir().mkpath(rulesDir));
        QVERIFY(QDir().mkpath(sysfs));
    }

    void theRulesAreLogindsFilesThatAgreeOnOneTagAndSeat()
    {
        room();
        writeRule(ruleName(QStringLiteral("commented")),
                  QStringLiteral("# written by hand\n\n") +
                      ruleText(QStringLiteral("x"), QStringLiteral("seat3")));
        writeRule(
            ruleName(QStringLiteral("comparison")),
            QStringLiteral("TAG==\"seat\", ENV{ID_FOR_SEAT}==\"y\", ENV{ID_SEAT}==\"seat1\"\n"));
        QStringList found;
        for (const SeatRules::Rule& rule : SeatRules(rulesDir).rules()) {
            found.append(rule.fileName + QLatin1Char(' ') + rule.forSeat + QLatin1Char(' ') +
                         rule.seat);
        }
        QCOMPARE(found,
                 (QStringList{"72-seat-commented.rules x seat3",
                              "72-seat-drm-pci-0000_00_04_0.rules drm-pci-0000_00_04_0 seat1",
                              ruleName(usbTag(1)) + " " + usbTag(1) + " seat0",
                              ruleName(usbTag(2)) + " " + usbTag(2) + " seat1",
                              ruleName(usbTag(3)) + " " + usbTag(3) + " seat1",
                              ruleName(usbTag(9)) + " " + usbTag(9) + " seat1"}));
    }

    void releasingASeatRemovesOnlyItsKeyboardsAndMiceRules()
    {
        const SystemSnapshot snapshot = room();
        LogCapture log;
        const SeatRules::Release result =
            SeatRules(rulesDir).release(QStringLiteral("seat1"), snapshot);
        QCOMPARE(result.errors, QStringList());
        QCOMPARE(result.removedFiles, (QStringList{QDir(rulesDir).filePath(ruleName(usbTag(2))),
                                                   QDir(rulesDir).filePath(ruleName(usbTag(3)))}));
        QVERIFY(!ruleExists(ruleName(usbTag(2))));
        QVERIFY(!ruleExists(ruleName(usbTag(3))));
        QVERIFY(ruleExists(ruleName(usbTag(1)))); // another seat's
        QVERIFY(ruleExists(ruleName(usbTag(9)))); // nothing known in that port
        QVERIFY(ruleExists(ruleName(QStringLiteral("drm-pci-0000_00_04_0")))); // a card's
        QVERIFY(ruleExists(QStringLiteral("70-local.rules")));
        QVERIFY(ruleExists(ruleName(QStringLiteral("mixed"))));

        const InputDeviceInfo& keyboardB = snapshot.inputDevices.at(1);
        const InputDeviceInfo& mouseB = snapshot.inputDevices.at(2);
        const QString inputB = QFileInfo(keyboardB.syspath).path();
        const QString inputMouseB = QFileInfo(mouseB.syspath).path();
        QCOMPARE(result.retriggered, (QStringList{keyboardB.port, inputB, keyboardB.syspath,
                                                  mouseB.port, inputMouseB, mouseB.syspath}));
        for (const QString& path : result.retriggered) {
            QCOMPARE(ueventOf(path), QByteArray("change"));
        }
        const InputDeviceInfo& keyboardA = snapshot.inputDevices.at(0);
        QCOMPARE(ueventOf(keyboardA.port), QByteArray());
        QCOMPARE(ueventOf(keyboardA.syspath), QByteArray());
        QCOMPARE(ueventOf(snapshot.graphicsCards.at(0).syspath), QByteArray());

        QVERIFY(log.contains("Removed " + result.removedFiles.at(0) + ", which placed " +
                             usbTag(2) + " on seat1"));
        QVERIFY(
            log.contains("Keeping 72-seat-drm-pci-0000_00_04_0.rules: it places a graphics card"));
        QVERIFY(log.contains("Asked udev to evaluate " + keyboardB.port + " again"));
    }

    void theDevicesBetweenPortAndInputAreEvaluatedAgainToo()
    {
        const SystemSnapshot snapshot = room();
        const InputDeviceInfo& keyboardB = snapshot.inputDevices.at(1);
        const QString usbInterface = keyboardB.port + QStringLiteral("/1-2:1.0");
        QVERIFY(writeFile(usbInterface + QStringLiteral("/uevent"), {}));
        const SeatRules::Release result =
            SeatRules(rulesDir).release(QStringLiteral("seat1"), snapshot);
        QCOMPARE(result.retriggered.mid(0, 4),
                 (QStringList{keyboardB.port, usbInterface, QFileInfo(keyboardB.syspath).path(),
                              keyboardB.syspath}));
        QCOMPARE(ueventOf(usbInterface), QByteArray("change"));
    }

    void aCardsRuleIsKeptEvenWhenAKeyboardSharesItsTag()
    {
        SystemSnapshot snapshot = room();
        snapshot.graphicsCards[0].forSeat = usbTag(2);
        const SeatRules::Release result =
            SeatRules(rulesDir).release(QStringLiteral("seat1"), snapshot);
        QVERIFY(ruleExists(ruleName(usbTag(2))));
        QCOMPARE(result.removedFiles, QStringList{QDir(rulesDir).filePath(ruleName(usbTag(3)))});
    }

    void aDeviceGoneFromSysfsIsAnErrorAfterItsRuleIsRemoved()
    {
        const SystemSnapshot snapshot = room();
        const InputDeviceInfo& mouseB = snapshot.inputDevices.at(2);
        QVERIFY(QFile::remove(mouseB.syspath + QStringLiteral("/uevent")));
        LogCapture log;
        const SeatRules::Release result =
            SeatRules(rulesDir).release(QStringLiteral("seat1"), snapshot);
        QVERIFY(!ruleExists(ruleName(usbTag(3))));
        QCOMPARE(result.errors.size(), 1);
        QVERIFY2(result.errors.at(0).startsWith("Cannot have udev evaluate " + mouseB.syspath +
                                                " again: "),
                 qPrintable(result.errors.at(0)));
        const LogCapture::Entry* entry = log.find(result.errors.at(0));
        QVERIFY(entry);
        QCOMPARE(entry->level, Orvanta::Logger::LEVEL_ERROR);
        QVERIFY(!result.retriggered.contains(mouseB.syspath));
        QVERIFY(result.retriggered.contains(mouseB.port));
    }

    void aLinkNamedLikeARuleIsNotRemoved()
    {
        const SystemSnapshot snapshot = room();
        const QString target = dir.filePath(QStringLiteral("elsewhere.rules"));
        QVERIFY(writeFile(target, ruleText(usbTag(2), QStringLiteral("seat1")).toUtf8()));
        QVERIFY(QFile::remove(QDir(rulesDir).filePath(ruleName(usbTag(2)))));
        QVERIFY(QFile::link(target, QDir(rulesDir).filePath(ruleName(usbTag(2)))));
        const SeatRules::Release result =
            SeatRules(rulesDir).release(QStringLiteral("seat1"), snapshot);
        QCOMPARE(result.errors.size(), 1);
        QVERIFY2(result.errors.at(0).endsWith(": not a regular file"),
                 qPrintable(result.errors.at(0)));
        QVERIFY(QFileInfo::exists(target));
        QVERIFY(ruleExists(ruleName(usbTag(2))));
        QVERIFY(!ruleExists(ruleName(usbTag(3))));
    }

    void aDeviceThatStillShowsTheSeatWithoutRuleIsEvaluatedAgain()
    {
        const SystemSnapshot snapshot = room();
        QVERIFY(QFile::remove(QDir(rulesDir).filePath(ruleName(usbTag(2)))));
        const SeatRules::Release result =
            SeatRules(rulesDir).release(QStringLiteral("seat1"), snapshot);
        QCOMPARE(result.errors, QStringList());
        QCOMPARE(result.removedFiles, QStringList{QDir(rulesDir).filePath(ruleName(usbTag(3)))});
        const InputDeviceInfo& keyboardB = snapshot.inputDevices.at(1);
        const InputDeviceInfo& mouseB = snapshot.inputDevices.at(2);
        QCOMPARE(
            result.retriggered,
            (QStringList{mouseB.port, QFileInfo(mouseB.syspath).path(), mouseB.syspath,
                         keyboardB.port, QFileInfo(keyboardB.syspath).path(), keyboardB.syspath}));

        // Released twice: nothing to remove, the devices that show seat1 again.
        const SeatRules::Release again =
            SeatRules(rulesDir).release(QStringLiteral("seat1"), snapshot);
        QVERIFY(again.removedFiles.isEmpty());
        QCOMPARE(
            again.retriggered,
            (QStringList{keyboardB.port, QFileInfo(keyboardB.syspath).path(), keyboardB.syspath,
                         mouseB.port, QFileInfo(mouseB.syspath).path(), mouseB.syspath}));
        // Keyboard A shows seat0, whose rule stays: never touched.
        QCOMPARE(ueventOf(snapshot.inputDevices.at(0).syspath), QByteArray());
    }

    void aNameThatIsNoSeatChangesNothing()
    {
        const SystemSnapshot snapshot = room();
        const SeatRules::Release result =
            SeatRules(rulesDir).release(QStringLiteral("../seat1"), snapshot);
        QCOMPARE(result.errors, QStringList{"\"../seat1\" is no seat name"});
        QVERIFY(result.removedFiles.isEmpty());
        QVERIFY(ruleExists(ruleName(usbTag(2))));
    }
};

QTEST_GUILESS_MAIN(SeatRulesTest)
#include "test_seatrules.moc"
