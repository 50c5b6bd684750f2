#include "LogCapture.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationString.h"
#include "translation/TranslationText.h"

#include <QtTest>

using Orvanta::Logger;

namespace {

// A language with the string "lines": three lines with their own sizes, the
// middle one with a place marker.
TranslationLanguage* threeLineLanguage()
{
    auto* language = new TranslationLanguage(QStringLiteral("en"));
    auto* string = new TranslationString(QStringLiteral("lines"));
    string->addText(new TranslationText(10, 75, 100, QStringLiteral("first")));
    string->addText(new TranslationText(20, -75, 200, QStringLiteral("count %1")));
    string->addText(new TranslationText(30, 0, 0, QStringLiteral("last")));
    language->addString(string);
    return language;
}

} // namespace

class TranslationModelTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Qt warns about an arg() without a place marker; no line may cause it.
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void textKeepsItsValues()
    {
        const TranslationText text(14, -3, 700, QStringLiteral("Station %1"));
        QCOMPARE(text.getFontSize(), 14);
        QCOMPARE(text.getPosX(), -3);
        QCOMPARE(text.getPosY(), 700);
        QCOMPARE(text.getText(), QStringLiteral("Station %1"));
    }

    void stringKeepsTextsInOrder()
    {
        TranslationString string(QStringLiteral("id"));
        QCOMPARE(string.getId(), QStringLiteral("id"));
        QCOMPARE(string.getNumText(), 0);
        auto* first = new TranslationText(1, 0, 0, QStringLiteral("a"));
        auto* second = new TranslationText(2, 0, 0, QStringLiteral("b"));
        string.addText(first);
        string.addText(second);
        QCOMPARE(string.getNumText(), 2);
        QCOMPARE(string.getText(0), first);
        QCOMPARE(string.getText(1), second);
    }

    void stringRefusesNullAndRepeatedTexts()
    {
        LogCapture capture;
        TranslationString string(QStringLiteral("id"));
        auto* text = new TranslationText(1, 0, 0, QStringLiteral("a"));
        string.addText(text);
        string.addText(text);
        string.addText(nullptr);
        QCOMPARE(string.getNumText(), 1);
        QCOMPARE(capture.messages(),
                 (QStringList{"This text has already been added to the string", "text is NULL"}));
        for (const LogCapture::Entry& entry : capture.entries()) {
            QCOMPARE(entry.level, Logger::LEVEL_BUG);
            QCOMPARE(entry.file, QStringLiteral("TranslationString"));
            QCOMPARE(entry.function, QStringLiteral("addText"));
        }
    }

    void getTextOutOfRangeIsReported()
    {
        LogCapture capture;
        TranslationString string(QStringLiteral("id"));
        string.addText(new TranslationText(1, 0, 0, QStringLiteral("a")));
        string.addText(new TranslationText(1, 0, 0, QStringLiteral("b")));
        QCOMPARE(string.getText(-1), nullptr);
        QCOMPARE(string.getText(string.getNumText()), nullptr);
        QCOMPARE(capture.messages(),
                 (QStringList{"index is invalid: -1 (2)", "index is invalid: 2 (2)"}));
        QCOMPARE(capture.entries().first().level, Logger::LEVEL_BUG);
        QCOMPARE(capture.entries().first().function, QStringLiteral("getText"));
    }

    void languageKeepsTheFirstStringOfAnId()
    {
        LogCapture capture;
        TranslationLanguage language(QStringLiteral("de"));
        QCOMPARE(language.getId(), QStringLiteral("de"));
        auto* first = new TranslationString(QStringLiteral("configure-mouse"));
        TranslationString second(QStringLiteral("configure-mouse"));
        language.addString(first);
        language.addString(&second); // refused, so it stays with this test
        language.addString(nullptr);
        QCOMPARE(language.getString(QStringLiteral("configure-mouse")), first);
        QCOMPARE(language.getStringIds(), QStringList{"configure-mouse"});
        QCOMPARE(
            capture.messages(),
            (QStringList{"This string has already been added to the language", "string is NULL"}));
        for (const LogCapture::Entry& entry : capture.entries()) {
            QCOMPARE(entry.level, Logger::LEVEL_BUG);
            QCOMPARE(entry.file, QStringLiteral("TranslationLanguage"));
            QCOMPARE(entry.function, QStringLiteral("addString"));
        }
    }

    void getStringOfUnknownIdIsSilent()
    {
        LogCapture capture;
        const TranslationLanguage language(QStringLiteral("de"));
        QCOMPARE(language.getString(QStringLiteral("nope")), nullptr);
        QVERIFY(capture.entries().isEmpty());
    }

    void linesOfLogsOnEveryCall()
    {
        std::unique_ptr<TranslationLanguage> language(threeLineLanguage());
        LogCapture capture;
        QCOMPARE(language->linesOf(QStringLiteral("lines")).size(), size_t(3));
        QVERIFY(language->linesOf(QStringLiteral("missing"), 3).empty());
        QVERIFY(language->linesOf(QStringLiteral("missing"), "x").empty());
        QCOMPARE(capture.messages(),
                 (QStringList{"Cannot find string 'lines' for language 'en'",
                              "Cannot find string 'missing' for language 'en'",
                              "Cannot find string 'missing' for language 'en'"}));
        for (const LogCapture::Entry& entry : capture.entries()) {
            QCOMPARE(entry.level, Logger::LEVEL_BUG);
            QCOMPARE(entry.file, QStringLiteral("TranslationLanguage"));
            QCOMPARE(entry.function, QStringLiteral("renderString"));
        }
    }

    void linesOfKeepsEveryLineInOrder()
    {
        std::unique_ptr<TranslationLanguage> language(threeLineLanguage());
        const std::vector<TranslationText> lines = language->linesOf(QStringLiteral("lines"), 42);
        QCOMPARE(lines.size(), size_t(3));
        const QStringList texts{"first", "count 42", "last"};
        const QList<QPoint> positions{{75, 100}, {-75, 200}, {0, 0}};
        const QList<int> sizes{10, 20, 30};
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(lines[i].getText(), texts[i]);
            QCOMPARE(QPoint(lines[i].getPosX(), lines[i].getPosY()), positions[i]);
            QCOMPARE(lines[i].getFontSize(), sizes[i]);
        }
    }

    void argumentFormsFillThePlaceMarker_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("drawn"); // without, int 7, QString "seven"
        QTest::newRow("a marker gets the argument")
            << "Keyboards: %1" << QStringList{"Keyboards: %1", "Keyboards: 7", "Keyboards: seven"};
        QTest::newRow("a line without a marker is drawn unchanged")
            << "Press a key" << QStringList{"Press a key", "Press a key", "Press a key"};
        QTest::newRow("only the lowest marker is filled")
            << "%2 and %1" << QStringList{"%2 and %1", "%2 and 7", "%2 and seven"};
        QTest::newRow("a higher marker alone is the lowest")
            << "n=%3" << QStringList{"n=%3", "n=7", "n=seven"};
        QTest::newRow("a percent sign alone stays")
            << "100% done" << QStringList{"100% done", "100% done", "100% done"};
    }

    void argumentFormsFillThePlaceMarker()
    {
        QFETCH(QString, text);
        QFETCH(QStringList, drawn);
        TranslationLanguage language(QStringLiteral("en"));
        auto* string = new TranslationString(QStringLiteral("s"));
        string->addText(new TranslationText(12, 0, 10, text));
        string->addText(new TranslationText(12, 0, 30, text));
        language.addString(string);
        QStringList texts;
        for (const auto& lines :
             {language.linesOf(QStringLiteral("s")), language.linesOf(QStringLiteral("s"), 7),
              language.linesOf(QStringLiteral("s"), QStringLiteral("seven"))}) {
            for (const TranslationText& line : lines) {
                texts.append(line.getText());
            }
        }
        // Both lines of a string get the same argument.
        QCOMPARE(texts, (QStringList{drawn[0], drawn[0], drawn[1], drawn[1], drawn[2], drawn[2]}));
    }
};

QTEST_MAIN(TranslationModelTest)
#include "test_translationmodel.moc"
