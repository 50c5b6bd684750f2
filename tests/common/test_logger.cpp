#include "LogCapture.h"

#include <QtTest>

using Orvanta::Logger;

class LoggerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void printfFormIsCutAt1022Characters()
    {
        LogCapture capture;
        const QByteArray longText(2000, 'x');
        Logger::write(Logger::LEVEL_INFO, "Test", "fn", 1, "%s", longText.constData());
        QCOMPARE(capture.entries().size(), 1);
        QCOMPARE(capture.entries().first().message.size(), 1022);
    }
};

QTEST_GUILESS_MAIN(LoggerTest)
#include "test_logger.moc"
