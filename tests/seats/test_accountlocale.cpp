// The locale of a seat's user through AccountLocale, from a fake
// AccountsService and a fake localed of this test on a private bus: the
// user's Language, else the system's LANG, else nothing.
#include "DaemonRunner.h"

#include "seats/system/AccountLocale.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusObjectPath>
#include <QtTest>

#include <memory>

namespace {
const QString accountsService = QStringLiteral("org.freedesktop.Accounts");
const QString localeService = QStringLiteral("org.freedesktop.locale1");

QString userPath(qlonglong uid)
{
    return QStringLiteral("/org/freedesktop/Accounts/User%1").arg(uid);
}
} // namespace

class FakeUser : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Accounts.User")
    Q_PROPERTY(QString Language MEMBER language)

public:
    QString language;
};

// AccountsService's FindUserById: the users it knows, and an error for others.
class FakeAccounts : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Accounts")

public:
    QList<qlonglong> known;
    QList<qlonglong> asked;
    // Answers nothing, as a hung service.
    bool hung = false;

public Q_SLOTS:
    QDBusObjectPath FindUserById(qlonglong uid)
    {
        asked.append(uid);
        if (hung) {
            setDelayedReply(true);
        } else if (!known.contains(uid)) {
            sendErrorReply(QStringLiteral("org.freedesktop.Accounts.Error.Failed"),
                           QStringLiteral("Failed to look up user with uid %1.").arg(uid));
        }
        return QDBusObjectPath(userPath(uid));
    }
};

class FakeLocaled : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.locale1")
    Q_PROPERTY(QStringList Locale MEMBER locale)

public:
    QStringList locale;
};

class AccountLocaleTest : public QObject
{
    Q_OBJECT

private:
    static constexpr int callTimeoutMs = 300;
    static constexpr int waitMs = 5000;

    int round = 0;
    QString servicesName;
    QString askerName;
    FakeAccounts accounts;
    FakeLocaled localed;
    std::vector<std::unique_ptr<FakeUser>> users;

    QDBusConnection services() const { return QDBusConnection(servicesName); }

    void startAccounts()
    {
        QVERIFY(services().registerObject(QStringLiteral("/org/freedesktop/Accounts"), &accounts,
                                          QDBusConnection::ExportAllSlots));
        QVERIFY(services().registerService(accountsService));
    }

    void addUser(qlonglong uid, const QString& language)
    {
        auto user = std::make_unique<FakeUser>();
        user->language = language;
        QVERIFY(services().registerObject(userPath(uid), user.get(),
                                          QDBusConnection::ExportAllProperties));
        accounts.known.append(uid);
        users.push_back(std::move(user));
    }

    void startLocaled(const QStringList& locale)
    {
        localed.locale = locale;
        QVERIFY(services().registerObject(QStringLiteral("/org/freedesktop/locale1"), &localed,
                                          QDBusConnection::ExportAllProperties));
        QVERIFY(services().registerService(localeService));
    }

    // The answer of localeFor(uid), or "(none)" when none came in time.
    QString ask(qint64 uid)
    {
        AccountLocale locale(QDBusConnection(askerName), nullptr, callTimeoutMs);
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
        ++round;
        const QString address = QString::fromLocal8Bit(qgetenv("DBUS_SESSION_BUS_ADDRESS"));
        servicesName = QStringLiteral("services%1").arg(round);
        askerName = QStringLiteral("asker%1").arg(round);
        QVERIFY(QDBusConnection::connectToBus(address, servicesName).isConnected());
        QVERIFY(QDBusConnection::connectToBus(address, askerName).isConnected());
        accounts.known.clear();
        accounts.asked.clear();
        accounts.hung = false;
    }

    void cleanup()
    {
        QDBusConnection::disconnectFromBus(servicesName);
        QDBusConnection::disconnectFromBus(askerName);
        users.clear();
    }

    void theUsersLanguageComesFirst()
    {
        startAccounts();
        addUser(1000, QStringLiteral("de_DE.UTF-8"));
        startLocaled({QStringLiteral("LANG=fr_FR.UTF-8")});
        QCOMPARE(ask(1000), QStringLiteral("de_DE.UTF-8"));
        QCOMPARE(accounts.asked, QList<qlonglong>{1000});
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
        QCOMPARE(accounts.asked, QList<qlonglong>{1001});
    }

    void aHungAccountsServiceGetsTheSystemsAfterTheTimeOut()
    {
        startAccounts();
        addUser(1000, QStringLiteral("de_DE.UTF-8"));
        accounts.hung = true;
        startLocaled({QStringLiteral("LANG=fr_FR.UTF-8")});
        QCOMPARE(ask(1000), QStringLiteral("fr_FR.UTF-8"));
        QCOMPARE(accounts.asked, QList<qlonglong>{1000});
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
        QVERIFY(accounts.asked.isEmpty());
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
