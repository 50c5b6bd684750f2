#include "LogCapture.h"

LogCapture::LogCapture()
{
    Orvanta::Logger::initialize();
    // Direct: called on the thread that logs, inside the logger's lock.
    connect(
        Orvanta::Logger::getInstance(), &Orvanta::Logger::message, this,
        [this](QString time, Orvanta::Logger::Level level, QString file, QString function, int line,
               QString message) {
            const std::lock_guard<std::mutex> lock(mutex);
            arrived.append({time, level, file, function, line, message});
        },
        Qt::DirectConnection);
}

void LogCapture::collect() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    recorded.append(arrived);
    // The copies share nothing with the logging thread's any more.
    arrived.clear();
}

const QList<LogCapture::Entry>& LogCapture::entries() const
{
    collect();
    return recorded;
}

void LogCapture::clear()
{
    collect();
    recorded.clear();
}

QStringList LogCapture::messages() const
{
    QStringList result;
    for (const Entry& entry : entries()) {
        result.append(entry.message);
    }
    return result;
}

int LogCapture::count(const QString& message) const
{
    int matches = 0;
    for (const Entry& entry : entries()) {
        if (entry.message == message) {
            ++matches;
        }
    }
    return matches;
}

const LogCapture::Entry* LogCapture::find(const QString& message) const
{
    for (const Entry& entry : entries()) {
        if (entry.message == message) {
            return &entry;
        }
    }
    return nullptr;
}
