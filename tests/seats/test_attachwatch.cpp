// A claimed device's way to its seat through AttachWatch, against the tests'
// fake logind on a private bus, with udev's ID_SEAT told by the test: the seat
// showing at once or only after AttachDevice was asked again, logind refusing,
// the seat never showing, and answers that come after the outcome.
#include "ConnectionPair.h"
#include "DaemonRunner.h"
#include "FakeLogind.h"
#include "LogCapture.h"

#include "seats/app/AttachWatch.h"
#include "seats/system/LogindSeats.h"

#include <QDBusConnection>
#include <QRegularExpression>
#include <QtTest>

#include <algorithm>
#include <memory>

namespace {
const QString devicePath = QStringLiteral("/dev/input/event5");
const QString port = QStringLiteral("/sys/devices/pci0000:00/0000:00:04.0/usb1/1-2");
const QString seat = QStringLiteral("seat1");
} // namespace

class AttachWatchTest : public QObject
{
    Q_OBJECT

private:
    static constexpr int callTimeoutMs = 300;
    static constexpr int reaskAfterMs = 300;
    static constexpr int seatTimeoutMs = 1000;
    static constexpr int waitMs = 5000;

    struct Outcome
    {
        QString devicePath;
        QString failedStep;
    };

    std::unique_ptr<ConnectionPair> connections;
    std::unique_ptr<FakeLogind> logind;
    std::unique_ptr<LogindSeats> seats;
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<AttachWatch> watch;
    QList<Outcome> outcomes;

    void startWatch()
    {
        watch = std::make_unique<AttachWatch>(
            *seats, AttachRequest{devicePath, port, seat, 1},
            [this](const QString& path, const QString& failedStep) {
                outcomes.append({path, failedStep});
            },
            reaskAfterMs, seatTimeoutMs);
        watch->start();
    }

    bool waitForAttachCalls(int count) const
    {
        return DaemonRunner::waitUntil(
            [this, count] { return logind->manager.attachCalls.size() >= count; }, waitMs);
    }

    // Until the watch logs logind's first answer.
    bool waitForLogindsAnswer() const
    {
        return DaemonRunner::waitUntil(
            [this] {
                const QStringList lines = log->messages();
                return std::any_of(lines.cbegin(), lines.cend(), [](const QString& line) {
                    return line.startsWith(QLatin1String("logind attached "));
                });
            },
            waitMs);
    }

    // The watch's own lines with their levels, the measured times blanked.
    QStringList watchLines() const
    {
        static const QRegularExpression time(QStringLiteral("after \\d+ ms"));
        QStringList lines;
        for (const LogCapture::Entry& entry : log->entries()) {
            if (entry.file == QLatin1String("AttachWatch")) {
                const QString level = entry.level == Orvanta::Logger::LEVEL_INFO
                                          ? QStringLiteral("Info")
                                          : QStringLiteral("Level %1").arg(entry.level);
                lines.append(level + QStringLiteral(": ") +
                             QString(entry.message).replace(time, QStringLiteral("after N ms")));
            }
        }
        return lines;
    }

    // No more outcome comes within a while.
    bool staysQuiet(int outcomeCount) const
    {
        return !DaemonRunner::waitUntil(
            [this, outcomeCount] { return outcomes.size() > outcomeCount; },
            reaskAfterMs + seatTimeoutMs);
    }

    static QString info(const QString& text) { return QStringLiteral("Info: ") + text; }

    // The watch's lines for its start, logind's answer and the seat showing.
    const QString attachingLine = info(
        QStringLiteral("Attaching /dev/input/event5 (port "
                       "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-2) to seat1 for station 1"));
    const QString attachedLine =
        info(QStringLiteral("logind attached /sys/devices/pci0000:00/0000:00:04.0/usb1/1-2 to "
                            "seat1 after N ms; waiting for udev"));
    const QString onSeatLine = info(QStringLiteral("/dev/input/event5 is on seat1 after N ms"));

private Q_SLOTS:
    void initTestCase() { registerLogindTypes(); }

    void init()
    {
        connections = std::make_unique<ConnectionPair>();
        QVERIFY(connections->isConnected());
        logind = std::make_unique<FakeLogind>(connections->services());
        QVERIFY(logind->claimName());
        // logind's answers come when the test sends them, not as time-outs.
        seats =
            std::make_unique<LogindSeats>(connections->tested(), nullptr, callTimeoutMs, waitMs);
        log = std::make_unique<LogCapture>();
        outcomes.clear();
    }

    void cleanup()
    {
        watch.reset();
        seats.reset();
        log.reset();
        logind.reset();
        connections.reset();
    }

    void theSeatShowingAtOnceIsSuccess()
    {
        startWatch();
        QVERIFY(waitForLogindsAnswer());
        // Other seats, or none, are not the outcome.
        watch->seatSeen(QString());
        watch->seatSeen(QStringLiteral("seat0"));
        QVERIFY(outcomes.isEmpty());
        watch->seatSeen(seat);
        QCOMPARE(outcomes.size(), 1);
        QCOMPARE(outcomes.at(0).devicePath, devicePath);
        QCOMPARE(outcomes.at(0).failedStep, QString());
        QCOMPARE(logind->manager.attachCalls, (QList<QVariantList>{{seat, port, false}}));
        QCOMPARE(watchLines(), (QStringList{attachingLine, attachedLine, onSeatLine}));
        // Neither the re-ask nor the deadline follows.
        QVERIFY(staysQuiet(1));
        QCOMPARE(logind->manager.attachCalls.size(), 1);
    }

    void theSeatShownBeforeLogindAnswersCountsOnItsAnswer()
    {
        // logind has udev apply its rule before it answers AttachDevice, so
        // the seat can show first.
        logind->manager.attachMode = FakeManager::Mode::Hold;
        startWatch();
        QVERIFY(waitForAttachCalls(1));
        watch->seatSeen(seat);
        QVERIFY(outcomes.isEmpty());
        logind->answerHeld();
        QVERIFY(DaemonRunner::waitUntil([this] { return !outcomes.isEmpty(); }, waitMs));
        QCOMPARE(outcomes.at(0).failedStep, QString());
        QVERIFY(staysQuiet(1));
        QCOMPARE(logind->manager.attachCalls.size(), 1);
    }

    void theSeatShowingAfterTheSecondAskIsSuccess()
    {
        startWatch();
        QVERIFY(waitForAttachCalls(2));
        QVERIFY(outcomes.isEmpty());
        QCOMPARE(logind->manager.attachCalls,
                 (QList<QVariantList>{{seat, port, false}, {seat, port, false}}));
        watch->seatSeen(seat);
        QCOMPARE(outcomes.size(), 1);
        QCOMPARE(outcomes.at(0).failedStep, QString());
        QCOMPARE(watchLines(),
                 (QStringList{attachingLine, attachedLine,
                              info("udev shows no seat for /dev/input/event5 after N ms: asking "
                                   "logind again"),
                              onSeatLine}));
        QVERIFY(staysQuiet(1));
        QCOMPARE(logind->manager.attachCalls.size(), 2);
    }

    void aRefusedAttachFailsAtThatStep_data()
    {
        QTest::addColumn<QString>("error");
        QTest::addColumn<QString>("message");
        QTest::newRow("access denied") << QStringLiteral("org.freedesktop.DBus.Error.AccessDenied")
                                       << QStringLiteral("Access denied");
        QTest::newRow("interactive authorization required")
            << QStringLiteral("org.freedesktop.DBus.Error.InteractiveAuthorizationRequired")
            << QStringLiteral("Interactive authentication required.");
    }

    void aRefusedAttachFailsAtThatStep()
    {
        QFETCH(QString, error);
        QFETCH(QString, message);
        logind->manager.attachMode = FakeManager::Mode::Refuse;
        logind->manager.refusedError = error;
        logind->manager.refusedMessage = message;
        startWatch();
        QVERIFY(DaemonRunner::waitUntil([this] { return !outcomes.isEmpty(); }, waitMs));
        QCOMPARE(outcomes.size(), 1);
        QCOMPARE(outcomes.at(0).devicePath, devicePath);
        QCOMPARE(outcomes.at(0).failedStep,
                 QStringLiteral("AttachDevice: %1: %2").arg(error, message));
        // The watch logs no Error of its own: the one Error naming the step is
        // its owner's, written from the outcome.
        QCOMPARE(watchLines(), (QStringList{attachingLine}));
        // Nothing is asked again, and a seat shown now changes nothing.
        watch->seatSeen(seat);
        QVERIFY(staysQuiet(1));
        QCOMPARE(logind->manager.attachCalls.size(), 1);
    }

    void aSeatThatNeverShowsFailsAtTheDeadline()
    {
        startWatch();
        QVERIFY(waitForAttachCalls(2));
        QVERIFY(outcomes.isEmpty());
        QVERIFY(DaemonRunner::waitUntil([this] { return !outcomes.isEmpty(); }, waitMs));
        QCOMPARE(outcomes.size(), 1);
        QCOMPARE(outcomes.at(0).failedStep,
                 QStringLiteral("ID_SEAT: /dev/input/event5 did not report seat1 within 1 s"));
        watch->seatSeen(seat);
        QVERIFY(staysQuiet(1));
        QCOMPARE(logind->manager.attachCalls.size(), 2);
    }

    void aLateAnswerAfterTheOutcomeDoesNothing_data()
    {
        QTest::addColumn<QString>("lateError");
        QTest::newRow("late success") << QString();
        QTest::newRow("late refusal") << QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
    }

    void aLateAnswerAfterTheOutcomeDoesNothing()
    {
        QFETCH(QString, lateError);
        startWatch();
        QVERIFY(waitForLogindsAnswer());
        // The second ask is held, and the seat shows while it is.
        logind->manager.attachMode = FakeManager::Mode::Hold;
        QVERIFY(waitForAttachCalls(2));
        watch->seatSeen(seat);
        QCOMPARE(outcomes.size(), 1);
        const QStringList lines = watchLines();
        logind->answerHeld(lateError);
        QVERIFY(staysQuiet(1));
        QCOMPARE(outcomes.at(0).failedStep, QString());
        QCOMPARE(watchLines(), lines);
    }

    void noAnswerReachesAWatchThatIsGone()
    {
        logind->manager.attachMode = FakeManager::Mode::Hold;
        startWatch();
        QVERIFY(waitForAttachCalls(1));
        watch.reset();
        logind->answerHeld();
        QVERIFY(staysQuiet(0));
    }
};

int main(int argc, char** argv)
{
    return runOnPrivateBus<QCoreApplication, AttachWatchTest>(argc, argv);
}

#include "test_attachwatch.moc"
