#pragma once

#include <QFile>
#include <QString>

class QDBusMessage;

// Writes one line per received call, "interface.Method arg ...", to standard
// output and, when given, appended to a file. Every line is flushed at once so
// that a reader polling the file sees it immediately.
class CallRecorder
{
public:
    CallRecorder(bool printCalls, const QString& fileName);

    bool isValid() const { return fileError.isEmpty(); }
    QString getError() const { return fileError; }

    void record(const QDBusMessage& call);
    // Standard output only: the ready line and similar notices.
    void announce(const QString& text);

    // `com.orvanta.Assignment.DeviceAssignedAuto "/dev/input/event3" 5 "KeyboardDevice"`
    static QString formatCall(const QDBusMessage& call);

private:
    bool toStandardOutput;
    QFile file;
    QString fileError;
};
