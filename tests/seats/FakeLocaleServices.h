#pragma once

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

// The tests' own AccountsService (org.freedesktop.Accounts with its users'
// Language) and localed (org.freedesktop.locale1's Locale) on a private bus.

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
    // Answers nothing, as a hung service; the calls are kept in `held`.
    bool hung = false;
    QList<QDBusMessage> held;

public Q_SLOTS:
    QDBusObjectPath FindUserById(qlonglong uid);
};

class FakeLocaled : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.locale1")
    Q_PROPERTY(QStringList Locale MEMBER locale)

public:
    QStringList locale;
};

class FakeLocaleServices
{
public:
    explicit FakeLocaleServices(const QDBusConnection& bus);

    // Each false when the object or name cannot be registered.
    bool startAccounts();
    bool addUser(qlonglong uid, const QString& language);
    bool startLocaled(const QStringList& locale);
    // Answers the FindUserById calls held so far as a service that knows the
    // users would, and forgets them.
    void answerHeld();

    FakeAccounts accounts;
    FakeLocaled localed;

private:
    QDBusConnection connection;
    std::vector<std::unique_ptr<FakeUser>> users;
};
