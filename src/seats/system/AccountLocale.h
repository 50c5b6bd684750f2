#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QString>

#include <functional>

// The locale a seat's prompt speaks: that of the user of the seat's active
// session, as AccountsService keeps it (org.freedesktop.Accounts, the user's
// Language), else the system's (the LANG entry of localed's Locale,
// org.freedesktop.locale1). The value is passed on as the services give it
// ("de_DE.UTF-8"); empty when neither knows one.
//
// Asks asynchronously on the connection given in (the system bus in the
// program), each call with a time-out, so a missing or hung service costs
// the caller nothing but the wait for its answer. Lives on one thread; the
// callbacks come from its event loop.
class AccountLocale : public QObject
{
    Q_OBJECT

public:
    static constexpr int defaultCallTimeoutMs = 5000;

    using Answer = std::function<void(const QString& locale)>;

    explicit AccountLocale(const QDBusConnection& connection, QObject* parent = nullptr,
                           int callTimeoutMs = defaultCallTimeoutMs);

    // The locale for the user (uid -1: nobody, the system's). `answer` is
    // called exactly once, from the event loop, unless this object is deleted
    // first.
    void localeFor(qint64 uid, Answer answer);

private:
    // FindUserById's answer: then the user's Language, else the system's.
    void userFound(qint64 uid, const QDBusMessage& reply, Answer answer);
    void askSystem(Answer answer);
    static void systemAnswered(const QDBusMessage& reply, const Answer& answer);

    QDBusConnection connection;
    const int callTimeoutMs;
};
