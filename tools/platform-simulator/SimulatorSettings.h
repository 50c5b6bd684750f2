#pragma once

#include <QHash>
#include <QList>
#include <QPair>
#include <QSet>
#include <QString>

// The answers the simulated platform gives: device counts, station tags, a
// locale per display, the methods that fail and the services that answer late
// or never. Filled from command-line
// options or from a settings file that holds the same options, one
// "option=value" per line.
class SimulatorSettings
{
public:
    // The answer delay of a service that never answers.
    static constexpr int neverAnswers = -1;

    // Applies one option by its long name without dashes ("assigned-keyboards",
    // "tag", "locale", "fail", "delay", "hang"). On a bad name or value, sets `error` and returns
    // false.
    bool apply(const QString& option, const QString& value, QString& error);
    // Applies every "option=value" line of the file; "#" starts a comment line.
    bool loadFile(const QString& fileName, QString& error);

    // The count answered by one of the four "DeviceGetNumberOf..." methods.
    int getCount(const QString& method) const { return counts.value(method, 0); }
    QString getTag(const QString& name) const { return tags.value(name); }
    // The locale of the display, else the one given for "*", else empty.
    QString getLocale(int displayId) const;
    bool isFailing(const QString& method) const { return failing.contains(method); }
    // How long the service (e.g. "com.orvanta.DB") waits before it answers a
    // call, in milliseconds: 0 at once, neverAnswers when it hangs.
    int getAnswerDelay(const QString& service) const { return answerDelays.value(service, 0); }
    // The services given a delay or a hang, to check their names against.
    QList<QString> getSlowServices() const { return answerDelays.keys(); }

    // Option name and counting method, e.g. "assigned-mice" and "DeviceGetNumberOfAssignedMice".
    static const QList<QPair<QString, QString>>& countOptions();

private:
    QHash<QString, int> counts;
    QHash<QString, QString> tags;
    QHash<QString, QString> locales;
    QSet<QString> failing;
    QHash<QString, int> answerDelays;
};
