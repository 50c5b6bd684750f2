// The sessions' locales kept by SessionLocales, from the tests' fake
// AccountsService and localed on a private bus: what is known is answered at
// once, the system's stands in until the user's arrives, and each user is
// asked for once.
#include "ConnectionPair.h"
#include "DaemonRunner.h"
#include "FakeLocaleServices.h"

#include "seats/app/SessionLocales.h"
#include "seats/system/AccountLocale.h"

#include <QDBusConnection>
#include <QtTest>

#include <memory>

class SessionLocalesTest : public QObject
{
    Q_OBJECT

private:
    static constexpr int waitMs = 5000;

    std::unique_ptr<ConnectionPair> connections;
    std::unique_ptr<FakeLocaleServices> fakes;
    std::unique_ptr<AccountLocale> accountLocale;
    std::unique_ptr<SessionLocales> locales;

    bool waitForLocale(qint64 uid, const QString& expected) const
    {
        return DaemonRunner::waitUntil([&] { return locales->localeOf(uid) == expected; }, waitMs);
    }

private Q_SLOTS:
    void init()
    {
        connections = std::make_unique<ConnectionPair>();
        QVERIFY(connections->isConnected());
        fakes = std::make_unique<FakeLocaleServices>(connections->services());
        QVERIFY(fakes->startAccounts());
        QVERIFY(fakes->addUser(1000, QStringLiteral("de_DE.UTF-8")));
        QVERIFY(fakes->addUser(1001, QStringLiteral("it_IT.UTF-8")));
        QVERIFY(fakes->startLocaled({QStringLiteral("LANG=fr_FR.UTF-8")}));
        // Answers come when the fakes send them, not as time-outs.
        accountLocale = std::make_unique<AccountLocale>(connections->tested(), nullptr, waitMs);
        locales = std::make_unique<SessionLocales>(*accountLocale);
    }

    void cleanup()
    {
        locales.reset();
        accountLocale.reset();
        fakes.reset();
        connections.reset();
    }

    void nothingIsKnownBeforeTheFirstAnswer()
    {
        locales->start();
        QCOMPARE(locales->localeOf(-1), QString());
        QCOMPARE(locales->localeOf(1000), QString());
        QVERIFY(waitForLocale(-1, QStringLiteral("fr_FR.UTF-8")));
    }

    void aKnownUsersLocaleIsAnsweredAtOnce()
    {
        locales->start();
        locales->want(1000);
        QVERIFY(waitForLocale(1000, QStringLiteral("de_DE.UTF-8")));
        // From what is kept, without asking again.
        locales->want(1000);
        QCOMPARE(locales->localeOf(1000), QStringLiteral("de_DE.UTF-8"));
        QCOMPARE(fakes->accounts.asked, QList<qlonglong>{1000});
    }

    void theSystemsStandsInUntilTheUsersArrives()
    {
        locales->start();
        QVERIFY(waitForLocale(-1, QStringLiteral("fr_FR.UTF-8")));
        fakes->accounts.hung = true;
        locales->want(1000);
        QVERIFY(
            DaemonRunner::waitUntil([this] { return !fakes->accounts.held.isEmpty(); }, waitMs));
        QCOMPARE(locales->localeOf(1000), QStringLiteral("fr_FR.UTF-8"));
        fakes->answerHeld();
        QVERIFY(waitForLocale(1000, QStringLiteral("de_DE.UTF-8")));
        // The system's stays for those without a session.
        QCOMPARE(locales->localeOf(-1), QStringLiteral("fr_FR.UTF-8"));
    }

    void eachUserIsAskedForOnce()
    {
        locales->start();
        fakes->accounts.hung = true;
        // Asked again while the first question is open, and after its answer.
        locales->want(1000);
        locales->want(1001);
        locales->want(1000);
        QVERIFY(
            DaemonRunner::waitUntil([this] { return fakes->accounts.held.size() == 2; }, waitMs));
        fakes->answerHeld();
        QVERIFY(waitForLocale(1000, QStringLiteral("de_DE.UTF-8")));
        QVERIFY(waitForLocale(1001, QStringLiteral("it_IT.UTF-8")));
        locales->want(1001);
        locales->want(1000);
        QVERIFY(!DaemonRunner::waitUntil([this] { return fakes->accounts.asked.size() > 2; }, 500));
        QCOMPARE(fakes->accounts.asked, (QList<qlonglong>{1000, 1001}));
    }

    void aUserWithoutLocaleGetsTheSystems()
    {
        locales->start();
        QVERIFY(fakes->addUser(1002, QString()));
        locales->want(1002);
        QVERIFY(
            DaemonRunner::waitUntil([this] { return fakes->accounts.asked.size() == 1; }, waitMs));
        QVERIFY(waitForLocale(1002, QStringLiteral("fr_FR.UTF-8")));
    }
};

int main(int argc, char** argv)
{
    return runOnPrivateBus<QCoreApplication, SessionLocalesTest>(argc, argv);
}

#include "test_sessionlocales.moc"
