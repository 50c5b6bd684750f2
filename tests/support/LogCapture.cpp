#include "LogCapture.h"

LogCapture::LogCapture()
{
    Orvanta::Logger::initialize();
    connect(Orvanta::Logger::getInstance(), &Orvanta::Logger::message, this,
            [this](QString time, Orvanta::Logger::Level level, QString file, QString function,
                   int line, QString message) {
                recorded.append({time, level, file, function, line, message});
            });
}

QStringList LogCapture::messages() const
{
    QStringList result;
    for (const Entry& entry : recorded) {
        result.append(entry.message);
    }
    return result;
}

int LogCapture::count(const QString& message) const
{
    int matches = 0;
    for (const Entry& entry : recorded) {
        if (entry.message == message) {
            ++matches;
        }
    }
    return matches;
}

const LogCapture::Entry* LogCapture::find(const QString& message) const
{
    for (const Entry& entry : recorded) {
        if (entry.message == message) {
            return &entry;
        }
    }
    return nullptr;
}
