#pragma once

#include "common/Logger.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

// Records every message the logger emits while it lives, so tests can assert
// the exact text, level, source file and function of a log line.
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

    const QList<Entry>& entries() const { return recorded; }
    QStringList messages() const;
    int count(const QString& message) const;
    bool contains(const QString& message) const { return count(message) > 0; }
    // The first entry with exactly this message, or nullptr.
    const Entry* find(const QString& message) const;
    void clear() { recorded.clear(); }

private:
    QList<Entry> recorded;
};
