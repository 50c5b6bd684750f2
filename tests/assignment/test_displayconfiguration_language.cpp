// The language of the overlay: the locale of the display's user, asked of the
// session controller (the platform simulator), matched against the loaded
// languages by dropping what follows the last "_" until one matches, with
// English as the fallback; and the registration of the overlay's font.
#include "OverlayTestBed.h"
#include "XvfbServer.h"

#include "translation/TranslationLanguage.h"

#include <QFontDatabase>
#include <QtTest>

namespace {

QByteArray translationsWith(const QStringList& languageIds)
{
    QByteArray xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<translations>\n";
    for (const QString& id : languageIds) {
        xml += "  <language id=\"" + id.toUtf8() +
               "\"><string id=\"configure-mouse\">"
               "<text font_size=\"20\" pos_x=\"40\" pos_y=\"200\" value=\"Click\"/>"
               "</string></language>\n";
    }
    return xml + "</translations>\n";
}

const QString fontFile = QStringLiteral("/usr/share/orvanta/images/DejaVuSans.ttf");
const QString debianFont = QStringLiteral("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf");

} // namespace

class DisplayConfigurationLanguageTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(OverlayTestBed::writeDataFile("translations/selvane.xml",
                                              translationsWith({"en", "de", "pt_BR", "pt", "fr"})));
        // Displays on which no server runs: only the locale is asked for.
        german = XvfbServer::unusedDisplayNumber();
        british = XvfbServer::unusedDisplayNumber(german + 1);
        unanswered = XvfbServer::unusedDisplayNumber(british + 1);
        QVERIFY(german >= 0 && british >= 0 && unanswered >= 0);
        bed = std::make_unique<OverlayTestBed>(
            QStringList{"--locale", QStringLiteral("%1=de_DE.UTF-8").arg(german), "--locale",
                        QStringLiteral("%1=en_GB").arg(british)});
        QVERIFY(bed->isReady());
    }
    void cleanupTestCase() { bed.reset(); }
    void init() { bed->getLog().clear(); }

    void localeOfTheDisplayChoosesTheLanguage()
    {
        const int before = bed->callCount();
        auto display = bed->create(german, 5);
        QCOMPARE(display->getLanguage(), bed->getCentral().getLanguage("de"));
        QVERIFY(display->getLanguage());
        QCOMPARE(bed->callsSince(before),
                 QStringList{
                     QStringLiteral("com.orvanta.Controllers.Session.GetLocaleForUserOnDisplay %1")
                         .arg(german)});
        QCOMPARE(bed->getLog().messages(),
                 (QStringList{
                     QStringLiteral("Creating display configuration on display :%1 on station 5.")
                         .arg(german),
                     "Using language de on station 5"}));
        QCOMPARE(bed->getLog().entries().last().level, Orvanta::Logger::LEVEL_INFO);
        QCOMPARE(bed->getLog().entries().last().function, QString("determineLanguage"));
    }

    void unansweredLocaleFallsBackToEnglish()
    {
        // The simulator answers a display it has no locale for with an empty one.
        auto display = bed->create(unanswered, 4);
        QCOMPARE(display->getLanguage(), bed->getCentral().getLanguage("en"));
        QVERIFY(display->getLanguage());
        QCOMPARE(bed->getLog().messages().mid(1),
                 (QStringList{"Cannot find strings for language ''.  Using language 'en' as a "
                              "default",
                              "Using language en on station 4"}));
        QCOMPARE(bed->getLog().entries().at(1).level, Orvanta::Logger::LEVEL_WARNING);
    }

    void matching_data()
    {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QString>("language");
        QTest::addColumn<bool>("warned");
        QTest::newRow("a loaded id matches at once") << "fr"
                                                     << "fr" << false;
        QTest::newRow("en_GB finds en") << "en_GB"
                                        << "en" << false;
        QTest::newRow("the encoding goes with the territory") << "de_DE.UTF-8"
                                                              << "de" << false;
        QTest::newRow("pt_BR_x finds pt_BR before pt") << "pt_BR_x"
                                                       << "pt_BR" << false;
        QTest::newRow("pt_PT finds pt") << "pt_PT"
                                        << "pt" << false;
        QTest::newRow("an unknown language gets English") << "xx_YY"
                                                          << "en" << true;
        QTest::newRow("a dot alone is not stripped") << "de.UTF-8"
                                                     << "en" << true;
        QTest::newRow("case counts") << "DE_de"
                                     << "en" << true;
        QTest::newRow("empty") << ""
                               << "en" << true;
    }
    void matching()
    {
        QFETCH(QString, locale);
        QFETCH(QString, language);
        QFETCH(bool, warned);
        auto display = bed->create(british, 6);
        bed->getLog().clear();
        display->determineLanguage(locale);
        QVERIFY(display->getLanguage());
        QCOMPARE(display->getLanguage()->getId(), language);
        QStringList expected;
        if (warned) {
            expected << "Cannot find strings for language '" + locale +
                            "'.  Using language 'en' as a default";
        }
        expected << "Using language " + language + " on station 6";
        QCOMPARE(bed->getLog().messages(), expected);
    }

    void constructionAsksOnceAndUsesTheAnswer()
    {
        // That display answers en_GB: English without a warning.
        auto display = bed->create(british, 6);
        QCOMPARE(display->getLanguage()->getId(), QString("en"));
        QCOMPARE(bed->getLog().messages().filter("Cannot find"), QStringList());
    }

    void withoutEnglishNothingCanBeRendered()
    {
        QVERIFY(
            OverlayTestBed::writeDataFile("translations/selvane.xml", translationsWith({"de"})));
        bed->recreateCentral();
        QVERIFY(bed->getCentral().getLanguage("de"));
        QVERIFY(!bed->getCentral().getLanguage("en"));
        bed->getLog().clear();
        auto display = bed->create(british, 6);
        QCOMPARE(display->getLanguage(), nullptr);
        const QStringList expected{
            "Cannot find strings for language 'en_GB'.  Using language 'en' as a default",
            "Cannot find strings for language 'en'.  No strings can be rendered."};
        QCOMPARE(bed->getLog().messages().mid(1), expected);
        QCOMPARE(bed->getLog().entries().at(1).level, Orvanta::Logger::LEVEL_WARNING);
        QCOMPARE(bed->getLog().entries().at(2).level, Orvanta::Logger::LEVEL_WARNING);

        // A match is still found without English.
        bed->getLog().clear();
        display->determineLanguage("de_AT");
        QCOMPARE(display->getLanguage(), bed->getCentral().getLanguage("de"));
        QCOMPARE(bed->getLog().messages(), QStringList{"Using language de on station 6"});
    }

    void fontIsRegisteredFromTheImageDirectory()
    {
        QVERIFY(OverlayTestBed::removeDataFile("images/DejaVuSans.ttf") ||
                !QFile::exists(fontFile));
        DisplayConfiguration::initTranslations();
        QCOMPARE(bed->getLog().messages(), QStringList{"Could not load default font " + fontFile});
        QCOMPARE(bed->getLog().entries().first().level, Orvanta::Logger::LEVEL_WARNING);
        QCOMPARE(bed->getLog().entries().first().function, QString("initTranslations"));

        QFile font(debianFont);
        QVERIFY2(font.open(QIODevice::ReadOnly), "fonts-dejavu-core is not installed");
        QVERIFY(OverlayTestBed::writeDataFile("images/DejaVuSans.ttf", font.readAll()));
        bed->getLog().clear();
        DisplayConfiguration::initTranslations();
        // A second registration is harmless.
        DisplayConfiguration::initTranslations();
        const QString loaded = "Loaded default font " + fontFile;
        QCOMPARE(bed->getLog().messages(), (QStringList{loaded, loaded}));
        QCOMPARE(bed->getLog().entries().first().level, Orvanta::Logger::LEVEL_INFO);
        QVERIFY(QFontDatabase::families().contains("DejaVu Sans"));
    }

private:
    int german = -1;
    int british = -1;
    int unanswered = -1;
    std::unique_ptr<OverlayTestBed> bed;
};

SELVANE_OVERLAY_TEST_MAIN(DisplayConfigurationLanguageTest, false)

#include "test_displayconfiguration_language.moc"
