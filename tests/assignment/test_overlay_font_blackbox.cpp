// The built daemon registers the overlay's font twice at start, before its
// options are parsed and again in the daemon child; only the second one can
// reach the log, which therefore holds exactly one line about the font.
#include "DaemonRunner.h"
#include "TestFiles.h"

#include <QDir>
#include <QRegularExpression>
#include <QtTest>

#include <memory>

namespace {

const QString fontFile = QStringLiteral("/usr/share/orvanta/images/DejaVuSans.ttf");
const QString debianFont = QStringLiteral("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf");

QRegularExpression fontLine(const QString& level, const QString& message)
{
    return DaemonRunner::logLine(level, "DisplayConfiguration:initTranslations", message);
}

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
        const QRegularExpression loaded = fontLine("Info", "Loaded default font " + fontFile);
        QCOMPARE(matching(lines, loaded), 1);
        QCOMPARE(matching(lines, QRegularExpression("default font")), 1);
        stopDaemon();
    }

    void missingFontIsWarnedAboutOnce()
    {
        const QStringList lines = startDaemon();
        const QRegularExpression missing =
            fontLine("Warning", "Could not load default font " + fontFile);
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
        daemon = runner->startDaemon(
            {"-c", config},
            DaemonRunner::logLine("Info", "DBusInterface:connect", "Connection established"));
        return DaemonRunner::readLines(runner->defaultLogFile());
    }

    void stopDaemon()
    {
        QVERIFY(daemon > 0);
        QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);
    }

    std::unique_ptr<DaemonRunner> runner;
    QString config;
    QString share;
    pid_t daemon = 0;
};

SELVANE_DAEMON_TEST_MAIN(OverlayFontBlackboxTest)
#include "test_overlay_font_blackbox.moc"
