#pragma once

#include "common/Logger.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <mutex>

// Records every message the logger emits while it lives, so tests can assert
// the exact text, level, source file and function of a log line. Lines of
// any thread are recorded as they are written, in the logger's order: the
// station threads write theirs on their own thread. The accessors belong to
// the test's thread.
class LogCapture : public QObject
{
    Q_OBJECT

public:
    struct Entry
    {
        QString time;
        Orvanta::Logger::Level level;
        QString file;
        QString function;
        int line;
        QString message;
    };

    // Initialises the logger singleton if nobody did yet.
    LogCapture();

    const QList<Entry>& entries() const;
    QStringList messages() const;
    int count(const QString& message) const;
    bool contains(const QString& message) const { return count(message) > 0; }
    // The first entry with exactly this message, or nullptr.
    const Entry* find(const QString& message) const;
    void clear();

private:
    // Moves what the logger wrote since the last call into `recorded`.
    void collect() const;

    mutable std::mutex mutex;
    // Written on the logging thread under `mutex`.
    mutable QList<Entry> arrived;
    mutable QList<Entry> recorded;
};
