#pragma once

#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariant>
#include <QVector>

class QDBusAbstractInterface;
class QDBusPendingCallWatcher;

namespace Orvanta {

// Remote calls sent together that share one bound: done() comes once
// every call is answered, or when the bound has passed, whichever is first.
// A call without an answer by then reads as failed, and its late answer is
// dropped. Nothing here waits: the answers are handled by the event loop of
// the thread the group belongs to, where all its methods are called; its
// owner (usually its QObject parent) deletes it, later when inside done().
class PendingCallGroup : public QObject
{
    Q_OBJECT

public:
    explicit PendingCallGroup(int boundMs, QObject* parent = nullptr);
    ~PendingCallGroup() override;

    PendingCallGroup(const PendingCallGroup&) = delete;
    PendingCallGroup& operator=(const PendingCallGroup&) = delete;

    // Sends the call at once; its answer is answer(index) with the returned index.
    int send(QDBusAbstractInterface& proxy, const QString& method,
             const QVariantList& arguments = {});
    // Starts the bound. True when nothing is outstanding (no call was sent):
    // then done() does not come.
    bool start();
    bool isFinished() const { return finished; }

    // The answer of a call, or an invalid message when it failed or is missing.
    QDBusMessage answer(int index) const { return answers.value(index); }
    // The answer as an int, or 0 when it is no int.
    int intAnswer(int index) const;
    // The answer as a string, or an empty string when it is no string.
    QString stringAnswer(int index) const;

Q_SIGNALS:
    void done();

private:
    void answered(int index, QDBusPendingCallWatcher* watcher);
    void finish();

    QTimer bound;
    QVector<QDBusMessage> answers;
    QVector<QDBusPendingCallWatcher*> watchers;
    int outstanding = 0;
    bool finished = false;
};

} // namespace Orvanta
