#include "seats/app/SessionLocales.h"

#include "seats/system/AccountLocale.h"

#include <QPointer>

SessionLocales::SessionLocales(AccountLocale& accountLocale) : locales(accountLocale) {}

void SessionLocales::start()
{
    want(-1);
}

void SessionLocales::want(qint64 uid)
{
    if (asked.contains(uid)) {
        return;
    }
    asked.insert(uid);
    QPointer<SessionLocales> self(this);
    locales.localeFor(uid, [self, uid](const QString& locale) {
        if (self) {
            self->known.insert(uid, locale);
        }
    });
}

QString SessionLocales::localeOf(qint64 uid) const
{
    const QString own = known.value(uid);
    return own.isEmpty() ? known.value(-1) : own;
}
