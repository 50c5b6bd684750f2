#include "common/PendingCallGroup.h"

#include <QDBusAbstractInterface>
#include <QDBusPendingCallWatcher>
#include <QDBusReply>

namespace Orvanta {

PendingCallGroup::PendingCallGroup(int boundMs, QObject* parent) : QObject(parent)
{
    bound.setSingleShot(true);
    // A coarse timer may fire up to 5 % early: a caller is given its whole bound.
    bound.setTimerType(Qt::PreciseTimer);
    bound.setInterval(boundMs);
    connect(&bound, &QTimer::timeout, this, &PendingCallGroup::finish);
}

PendingCallGroup::~PendingCallGroup()
{
    qDeleteAll(watchers);
}

int PendingCallGroup::send(QDBusAbstractInterface& proxy, const QString& method,
                           const QVariantList& arguments)
{
    const int index = static_cast<int>(answers.size());
    answers.append(QDBusMessage());
    auto* watcher = new QDBusPendingCallWatcher(proxy.asyncCallWithArgumentList(method, arguments));
    watchers.append(watcher);
    ++outstanding;
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, index](QDBusPendingCallWatcher* call) { answered(index, call); });
    return index;
}

bool PendingCallGroup::start()
{
    if (outstanding == 0) {
        finished = true;
        return true;
    }
    bound.start();
    return false;
}

void PendingCallGroup::answered(int index, QDBusPendingCallWatcher* watcher)
{
    if (finished) {
        return;
    }
    answers[index] = watcher->reply();
    if (--outstanding == 0) {
        finish();
    }
}

void PendingCallGroup::finish()
{
    if (finished) {
        return;
    }
    finished = true;
    bound.stop();
    Q_EMIT done();
}

int PendingCallGroup::intAnswer(int index) const
{
    const QDBusReply<int> reply(answer(index));
    return reply.isValid() ? reply.value() : 0;
}

QString PendingCallGroup::stringAnswer(int index) const
{
    const QDBusReply<QString> reply(answer(index));
    return reply.isValid() ? reply.value() : QString();
}

} // namespace Orvanta
