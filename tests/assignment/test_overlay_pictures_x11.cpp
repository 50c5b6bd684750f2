// The shipped overlay pictures as 4:3 screens show them, compared pixel for
// pixel with fingerprints recorded from the same screens: the keyboard step
// with an F-key and with a letter, the mouse step, the please-wait picture
// and the keyboard step under the ALPHA and the BETA badge, in German and in
// French, at 1024x768 and at 1600x1200. The daemon's data directory is the
// built one (the pictures rendered from data/images/src and
// data/translations/selvane.xml), the screens are Xvfb servers of those sizes
// and the screens are read back from the servers. However the composition is
// done, a 4:3 screen shows the same pixels.
//
// With SELVANE_RECORD_PICTURES=1 set, the test prints the rows of the table
// below for what the screens show now, and saves each screen as a PNG file,
// instead of comparing. A screen that differs is saved as a PNG file whose
// path the failure names. The files go where ScreenPicture::saveForInspection
// puts them ($SELVANE_SCREENSHOT_DIR, or a directory under the temporary one).
//
// The fingerprints hold for the fonts, Qt and librsvg of the machine they were
// recorded on: another version may shift the odd pixel of a glyph's edge.
#include "OverlayTestBed.h"
#include "ScreenPicture.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include "translation/TranslationLanguage.h"

#include <QtTest>

#include <cstdio>
#include <map>

namespace {

struct Recorded
{
    const char* screen;
    const char* fingerprint;
};

// ScreenPicture::fingerprint() of each screen, by the test's row name.
constexpr Recorded recorded[] = {
    {"1024x768 de keyboard F5", "7c73efcbc0acb6cf613f422810ba7ba27e14abadf07e3b571e5cef83638420af"},
    {"1024x768 de keyboard E", "19302ac371e230dd99ab80ca9cbef1b35ecabc335055688b57683f9671c98bee"},
    {"1024x768 de mouse", "9d9c869e0fa13aa035cbf1ce72dcb4664e0d383e1a3c803e3ae010c02b32a795"},
    {"1024x768 de please wait", "f3940c6848343ab779ebdc3a85ec5021390f84b8d15f589be0e6211fccb1037f"},
    {"1024x768 de ALPHA badge", "a267e529d2ac1f91b7ff02d6d1889fa0bf1ee302a51e15423d9d464b9fa1610e"},
    {"1024x768 de BETA badge", "2b8ed3e5f0ddea48ff99a6ed09a28f9c134b8769b35ca0874ae6e327ca639a32"},
    {"1024x768 fr keyboard F5", "ecf666c41a00fe5f9fe4033fc3fbc253e38245d069c03a7f2a8b0c7573bff1ff"},
    {"1024x768 fr keyboard E", "4ffd3839fc56f63762c61d30bd607c5ecc21341e6b56e1cb76864e1d68559474"},
    {"1024x768 fr mouse", "2389b0bdfd038f9a03b419d5691d941dfec1c1a72714d1582ed6c590b6fa1636"},
    {"1024x768 fr please wait", "9127d4506436fc2cea676ffd223fc13e9682404e5a3ddb8d1301fce1e85c4254"},
    {"1024x768 fr ALPHA badge", "1a927a89004474275242d0e3d291b03f03f48290b2cbfa8ec74aaf5e6a4f41e5"},
    {"1024x768 fr BETA badge", "212faadd989fc1a1c5b06a52e5a20fc3c6c56fad905b3693898e38cbc738c127"},
    {"1600x1200 de keyboard F5",
     "c80fb41fd3323840b20c269b592988e53e4abd98b832b452433c4fad40bb36da"},
    {"1600x1200 de keyboard E", "099b06244369188a4d9776094cb6594c4c4a4c634d340885590e9092826b55f2"},
    {"1600x1200 de mouse", "95d779ee6255d183380bf4e4c3a19c7c0b324868e4905a4ac5de43a6677df3a9"},
    {"1600x1200 de please wait",
     "32239b7cc4d7c5cf03016440a320b1fdec4e25c10980291dc6180b4d596f43f5"},
    {"1600x1200 de ALPHA badge",
     "22f347777f69e59d5f4d2d142267714d8696e797a2b2cab1ca416613c5288fd1"},
    {"1600x1200 de BETA badge", "5de5021717ca47111687225ae9bb1b08bdc5c74b1f35d0ec16e4b0eff2886525"},
    {"1600x1200 fr keyboard F5",
     "8b1feec2d519ef5b143959ab5c33325a289f21076dfbb4a376eee4ee3ef821a9"},
    {"1600x1200 fr keyboard E", "4d46fc4b84e6e5cc74800f8997df93dc9ae1f5944e7575cfd96ada9a31d6247a"},
    {"1600x1200 fr mouse", "5dabce68f49f1bf1673ef585b496239206ec56040dc921c3fc86d12e36012957"},
    {"1600x1200 fr please wait",
     "df299b27cf2a87d17de195c142dbe71345aa980a4f958d75fe7ea6d0a6d12501"},
    {"1600x1200 fr ALPHA badge",
     "a7e145ebc0cc57333a3ab1ffad87c0b57ebada88e7e5896b6a50960ffc7e95cd"},
    {"1600x1200 fr BETA badge", "9a5913d7e3c6ad17b5660f06145e75ea7ebe93eb8ceecbfc0586d4e39ec7d312"},
};

QString recordedFingerprint(const QString& screen)
{
    for (const Recorded& row : recorded) {
        if (screen == QLatin1String(row.screen)) {
            return QString::fromLatin1(row.fingerprint);
        }
    }
    return QString();
}

bool isRecording()
{
    return qEnvironmentVariableIntValue("SELVANE_RECORD_PICTURES") == 1;
}

const QStringList screenSizes{"1024x768", "1600x1200"};
const QStringList languages{"de", "fr"};

// Stations 0-11 press F1-F12, 12-37 the letters.
constexpr int stationWithF5 = 4;
constexpr int stationWithE = 16;

} // namespace

class OverlayPicturesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // As the daemon does at its start.
        DisplayConfiguration::initTranslations();
        QStringList options{"--assigned-keyboards",
                            "2",
                            "--unassigned-keyboards",
                            "5",
                            "--assigned-mice",
                            "1",
                            "--unassigned-mice",
                            "3",
                            "--tag",
                            "name=Front Desk",
                            "--tag",
                            "location=Room 12"};
        for (const QString& size : screenSizes) {
            for (const QString& language : languages) {
                const QString key = size + " " + language;
                auto server = std::make_unique<XvfbServer>(size + "x24");
                QVERIFY2(server->start(), qPrintable(server->startError()));
                options << "--locale"
                        << QStringLiteral("%1=%2_%3.UTF-8")
                               .arg(server->getDisplayNumber())
                               .arg(language, language.toUpper());
                probes[key] = std::make_unique<XDisplayProbe>(server->getDisplayName());
                QVERIFY(probes[key]->isConnected());
                servers[key] = std::move(server);
            }
        }
        bed = std::make_unique<OverlayTestBed>(options);
        QVERIFY(bed->isReady());
        QVERIFY(bed->getCentral().getLanguage("de"));
        QVERIFY(bed->getCentral().getLanguage("fr"));
    }

    void cleanupTestCase()
    {
        bed.reset();
        probes.clear();
        servers.clear();
    }

    void cleanup()
    {
        // Every row removes its overlay: the next one starts from a screen without it.
        for (const auto& [key, probe] : probes) {
            QVERIFY2(DaemonRunner::waitUntil(
                         [&] { return probe->windowsNamed("Press F Key").isEmpty(); }),
                     qPrintable(key));
        }
    }

    void screenShowsTheRecordedPicture_data()
    {
        QTest::addColumn<QString>("screen");
        QTest::addColumn<QString>("language");
        QTest::addColumn<int>("station");
        QTest::addColumn<int>("badge");
        QTest::addColumn<int>("step");
        constexpr int none = DisplayConfiguration::OVERLAY_IMAGE_NONE;
        for (const QString& size : screenSizes) {
            for (const QString& language : languages) {
                const QString screen = size + " " + language;
                const auto row = [&](const char* picture) -> QTestData& {
                    return QTest::newRow(qPrintable(screen + " " + picture)) << screen << language;
                };
                row("keyboard F5") << stationWithF5 << none << int(OverlayContent::STEP_KEYBOARD);
                row("keyboard E") << stationWithE << none << int(OverlayContent::STEP_KEYBOARD);
                row("mouse") << stationWithF5 << none << int(OverlayContent::STEP_MOUSE);
                row("please wait") << stationWithF5 << none << int(OverlayContent::STEP_MOUSE_BUSY);
                row("ALPHA badge")
                    << stationWithF5 << int(DisplayConfiguration::OVERLAY_IMAGE_ALPHA)
                    << int(OverlayContent::STEP_KEYBOARD);
                row("BETA badge") << stationWithF5 << int(DisplayConfiguration::OVERLAY_IMAGE_BETA)
                                  << int(OverlayContent::STEP_KEYBOARD);
            }
        }
    }

    void screenShowsTheRecordedPicture()
    {
        QFETCH(QString, screen);
        QFETCH(QString, language);
        QFETCH(int, station);
        QFETCH(int, badge);
        QFETCH(int, step);
        const QString name = QString::fromLatin1(QTest::currentDataTag());
        const XDisplayProbe& probe = *probes.at(screen);

        auto display = bed->create(servers.at(screen)->getDisplayNumber(), station,
                                   static_cast<DisplayConfiguration::OverlayImage>(badge));
        QVERIFY(display->getLanguage());
        QCOMPARE(display->getLanguage()->getId(), language);
        display->openDisplay();
        display->configureKeyboard();
        ScreenPicture::Taken taken = OverlayTestBed::waitForPicture(*display, probe);
        QVERIFY2(taken.accepted, "the keyboard step was not shown");
        if (step != OverlayContent::STEP_KEYBOARD) {
            display->configureMouse(step == OverlayContent::STEP_MOUSE_BUSY);
            taken = OverlayTestBed::waitForPicture(*display, probe, taken.screen);
            QVERIFY2(taken.accepted, "the mouse step was not shown");
        }

        const QString shown = ScreenPicture::fingerprint(taken.screen);
        if (isRecording()) {
            std::printf("    {\"%s\",\n     \"%s\"},\n", qPrintable(name), qPrintable(shown));
            ScreenPicture::saveForInspection(taken.screen, QString(name).replace(' ', '-'));
            return;
        }
        const QString expected = recordedFingerprint(name);
        QVERIFY2(!expected.isEmpty(), qPrintable("no fingerprint recorded for " + name));
        if (shown != expected) {
            // A composition that reaches the window in more than one copy may
            // not be complete yet.
            taken = ScreenPicture::takeWhen(
                probe, [&] { display->update(); },
                [&](const QImage& now) { return ScreenPicture::fingerprint(now) == expected; },
                3000);
        }
        if (!taken.accepted) {
            const QString file =
                ScreenPicture::saveForInspection(taken.screen, QString(name).replace(' ', '-'));
            QFAIL(qPrintable(QStringLiteral("the screen differs from the recorded picture: "
                                            "%1 instead of %2; saved as %3")
                                 .arg(ScreenPicture::fingerprint(taken.screen), expected, file)));
        }
    }

private:
    std::map<QString, std::unique_ptr<XvfbServer>> servers;
    std::map<QString, std::unique_ptr<XDisplayProbe>> probes;
    std::unique_ptr<OverlayTestBed> bed;
};

SELVANE_OVERLAY_TEST_MAIN(OverlayPicturesTest, true)

#include "test_overlay_pictures_x11.moc"
