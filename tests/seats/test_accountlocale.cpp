// The locale of a seat's user through AccountLocale, from a fake
// AccountsService and a fake localed on a private bus: the
// user's Language, else the system's LANG, else nothing.
#include "ConnectionPair.h"
#include "DaemonRunner.h"
#include "FakeLocaleServices.h"

#include "seats/system/AccountLocale.h"

#include <QDBusConnection>
#include <QtTest>

#include <memory>

class AccountLocaleTest : public QObject
{
    Q_OBJECT

private:
    static constexpr int callTimeoutMs = 300;
    static constexpr int waitMs = 5000;

    std::unique_ptr<ConnectionPair> connections;
    std::unique_ptr<FakeLocaleServices> fakes;

    void startAccounts() { QVERIFY(fakes->startAccounts()); }
    void addUser(qlonglong uid, const QString& language) { QVERIFY(fakes->addUser(uid, language)); }
    void startLocaled(const QStringList& locale) { QVERIFY(fakes->startLocaled(locale)); }

    // The answer of localeFor(uid), or "(none)" when none came in time.
    QString ask(qint64 uid)
    {
        AccountLocale locale(connections->tested(), nullptr, callTimeoutMs);
        QStringList answers;
        locale.localeFor(uid, [&answers](const QString& answer) { answers.append(answer); });
        if (!answers.isEmpty()) {
            return QStringLiteral("(answered inside the call)");
        }
        if (!DaemonRunner::waitUntil([&] { return !answers.isEmpty(); }, waitMs)) {
            return QStringLiteral("(none)");
        }
        // Exactly one answer, also after the time-outs have passed.
        DaemonRunner::waitUntil([&] { return answers.size() > 1; }, 2 * callTimeoutMs);
        return answers.size() == 1 ? answers.at(0) : QStringLiteral("(more than one)");
    }

private Q_SLOTS:
    void init()
    {
        connections = std::make_unique<ConnectionPair>();
        QVERIFY(connections->isConnected());
        fakes = std::make_unique<FakeLocaleServices>(connections->services());
    }

    void cleanup()
    {
        fakes.reset();
        connections.reset();
    }

    void theUsersLanguageComesFirst()
    {
        startAccounts();
        addUser(1000, QStringLiteral("de_DE.UTF-8"));
        startLocaled({QStringLiteral("LANG=fr_FR.UTF-8")});
        QCOMPARE(ask(1000), QStringLiteral("de_DE.UTF-8"));
        QCOMPARE(fakes->accounts.asked, QList<qlonglong>{1000});
    }

    void aUserWithoutLanguageGetsTheSystems()
    {
        startAccounts();
        addUser(1000, QString());
        startLocaled({QStringLiteral("LC_TIME=en_GB.UTF-8"), QStringLiteral("LANG=fr_FR.UTF-8")});
        QCOMPARE(ask(1000), QStringLiteral("fr_FR.UTF-8"));
    }

    void aUserAccountsServiceDoesNotKnowGetsTheSystems()
    {
        startAccounts();
        startLocaled({QStringLiteral("LANG=fr_FR.UTF-8")});
        QCOMPARE(ask(1001), QStringLiteral("fr_FR.UTF-8"));
        QCOMPARE(fakes->accounts.asked, QList<qlonglong>{1001});
    }

    void aHungAccountsServiceGetsTheSystemsAfterTheTimeOut()
    {
        startAccounts();
        addUser(1000, QStringLiteral("de_DE.UTF-8"));
        fakes->accounts.hung = true;
        startLocaled({QStringLiteral("LANG=fr_FR.UTF-8")});
        QCOMPARE(ask(1000), QStringLiteral("fr_FR.UTF-8"));
        QCOMPARE(fakes->accounts.asked, QList<qlonglong>{1000});
    }

    void withoutAccountsServiceTheSystemsLocale()
    {
        startLocaled({QStringLiteral("LANG=es_ES.UTF-8")});
        QCOMPARE(ask(1000), QStringLiteral("es_ES.UTF-8"));
    }

    void noUserAsksOnlyTheSystem()
    {
        startAccounts();
        startLocaled({QStringLiteral("LANG=es_ES.UTF-8")});
        QCOMPARE(ask(-1), QStringLiteral("es_ES.UTF-8"));
        QVERIFY(fakes->accounts.asked.isEmpty());
    }

    void neitherServiceIsAnEmptyLocale()
    {
        QCOMPARE(ask(1000), QString());
        startLocaled({QStringLiteral("LC_ALL=C")});
        QCOMPARE(ask(1000), QString());
    }
};

int main(int argc, char** argv)
{
    return runOnPrivateBus<QCoreApplication, AccountLocaleTest>(argc, argv);
}

#include "test_accountlocale.moc"
