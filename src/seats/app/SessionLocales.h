#pragma once

#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>

class AccountLocale;

// The locales of the users of the stations' sessions, asked for as soon as a
// session shows up and kept, so that the daemon's question is answered at
// once from what is known: the user's locale once AccountsService (or
// localed) has answered, the system's until then.
//
// Owned by the bridge; main thread only.
class SessionLocales : public QObject
{
    Q_OBJECT

public:
    explicit SessionLocales(AccountLocale& accountLocale);

    // Asks for the system's locale; once, at the start.
    void start();
    // Asks for `uid`'s locale unless it is known or asked for already.
    void want(qint64 uid);
    // What is known for `uid` now (-1: the system's), maybe empty.
    QString localeOf(qint64 uid) const;

private:
    AccountLocale& locales;
    QMap<qint64, QString> known;
    QSet<qint64> asked;
};
