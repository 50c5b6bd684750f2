#include "common/SignalRelay.h"

#include "LogCapture.h"

#include <QtTest>

#include <csignal>

using Orvanta::SignalRelay;

namespace {
QList<int> handled;

void recordSignal(int signalNumber)
{
    handled.append(signalNumber);
}
} // namespace

class SignalRelayTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { handled.clear(); }

    void handlerRunsOnTheEventLoopNotInTheSignalHandler()
    {
        SignalRelay relay({SIGUSR1, SIGUSR2}, recordSignal);
        QVERIFY(relay.isValid());
        raise(SIGUSR1);
        raise(SIGUSR2);
        // raise() has returned, so the signals were handled; the relayed
        // handler waits for the event loop.
        QVERIFY(handled.isEmpty());
        QTRY_COMPARE(handled, (QList<int>{SIGUSR1, SIGUSR2}));
    }

    void signalBeforeTheLoopIsHandledOnceItRuns()
    {
        SignalRelay relay({SIGUSR1}, recordSignal);
        raise(SIGUSR1);
        raise(SIGUSR1);
        QTRY_COMPARE(handled, (QList<int>{SIGUSR1, SIGUSR1}));
    }

    void destructorRestoresTheDefaultAction()
    {
        {
            SignalRelay relay({SIGUSR1}, recordSignal);
        }
        struct sigaction current = {};
        QCOMPARE(sigaction(SIGUSR1, nullptr, &current), 0);
        QVERIFY(current.sa_handler == SIG_DFL);
    }

    void aSecondRelayIsRefused()
    {
        LogCapture capture;
        SignalRelay first({SIGUSR1}, recordSignal);
        SignalRelay second({SIGUSR2}, recordSignal);
        QVERIFY(first.isValid());
        QVERIFY(!second.isValid());
        const LogCapture::Entry* entry =
            capture.find(QStringLiteral("A signal relay is installed already"));
        QVERIFY(entry);
        QCOMPARE(entry->level, Orvanta::Logger::LEVEL_BUG);
        // The refused relay left SIGUSR2 alone.
        struct sigaction current = {};
        QCOMPARE(sigaction(SIGUSR2, nullptr, &current), 0);
        QVERIFY(current.sa_handler == SIG_DFL);
        raise(SIGUSR1);
        QTRY_COMPARE(handled, QList<int>{SIGUSR1});
    }
};

QTEST_GUILESS_MAIN(SignalRelayTest)
#include "test_signal_relay.moc"
