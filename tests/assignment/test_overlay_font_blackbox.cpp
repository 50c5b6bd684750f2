// The built daemon registers the overlay's font twice at start, before its
// options are parsed and again in the daemon child; only the second one can
// reach the log, which therefore holds exactly one line about the font.
#include "DaemonRunner.h"
#include "TestFiles.h"

#include <QDir>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <memory>

namespace {

const QString fontFile = QStringLiteral("/usr/share/orvanta/images/DejaVuSans.ttf");
const QString debianFont = QStringLiteral("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf");

QRegularExpression logLine(const QString& level, const QString& message)
{
    return QRegularExpression(R"(^\[[^\]]+\] \[)" + level +
                              R"(\] \[DisplayConfiguration:initTranslations:\d+\] )" +
                              QRegularExpression::escape(message) + "$");
}

const QRegularExpression
    establishedLine(R"(\[DBusInterface:connect:\d+\] Connection established$)");

} // namespace

class OverlayFontBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        runner = std::make_unique<DaemonRunner>();
        QVERIFY(runner->isBusRunning());
        config = runner->path("keys.conf");
        QVERIFY(writeFile(config, "KEY_LEFTCTRL:KEY_F1:true\n"));
        share = runner->path("share");
        QVERIFY(QDir().mkpath(share + "/images"));
        runner->setShareDir(share);
    }
    void cleanup() { runner.reset(); }

    void fontInTheImageDirectoryIsLoadedOnceInTheLog()
    {
        QFile font(debianFont);
        QVERIFY2(font.open(QIODevice::ReadOnly), "fonts-dejavu-core is not installed");
        QVERIFY(writeFile(share + "/images/DejaVuSans.ttf", font.readAll()));
        const QStringList lines = startDaemon();
        const QRegularExpression loaded = logLine("Info", "Loaded default font " + fontFile);
        QCOMPARE(matching(lines, loaded), 1);
        QCOMPARE(matching(lines, QRegularExpression("default font")), 1);
        stopDaemon();
    }

    void missingFontIsWarnedAboutOnce()
    {
        const QStringList lines = startDaemon();
        const QRegularExpression missing =
            logLine("Warning", "Could not load default font " + fontFile);
        QCOMPARE(matching(lines, missing), 1);
        QCOMPARE(matching(lines, QRegularExpression("default font")), 1);
        stopDaemon();
    }

private:
    static int matching(const QStringList& lines, const QRegularExpression& pattern)
    {
        int count = 0;
        for (const QString& line : lines) {
            count += pattern.match(line).hasMatch() ? 1 : 0;
        }
        return count;
    }

    // Starts the daemon and returns its log once it is on the bus, which it
    // joins after the font's registration.
    QStringList startDaemon()
    {
        const DaemonRunner::Result result = runner->run({"-c", config});
        if (result.status != 0) {
            qWarning("the daemon's foreground process ended with %d", result.status);
            return {};
        }
        daemon = runner->waitForDaemon();
        if (daemon > 0) {
            DaemonRunner::waitForLine(runner->defaultLogFile(), establishedLine);
        }
        return DaemonRunner::readLines(runner->defaultLogFile());
    }

    void stopDaemon()
    {
        QVERIFY(daemon > 0);
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    }

    std::unique_ptr<DaemonRunner> runner;
    QString config;
    QString share;
    pid_t daemon = 0;
};

SELVANE_DAEMON_TEST_MAIN(OverlayFontBlackboxTest)
#include "test_overlay_font_blackbox.moc"
