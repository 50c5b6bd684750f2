#include "LogCapture.h"
#include "TestFiles.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationParser.h"
#include "translation/TranslationString.h"
#include "translation/TranslationText.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QtTest>

#include <algorithm>

using Orvanta::Logger;

// Each case is a file golden/<case>.xml beside golden/<case>.expected, which
// holds the parse result, the model built (languages and their strings sorted
// by id, texts in file order) and every log line, in order:
//     result true
//     language en
//     string configure-mouse
//     text 20 10 30 "Click"
//     log Warning BaseParser:grabInt:302 Could not convert ...
// A log line's source line is compared only where the expectation gives one.
// "@FILE@" stands for the parsed file's path. A case without an .xml file
// parses a name that does not exist.
namespace {

struct Expectation
{
    bool result = false;
    QStringList model;
    QStringList log;
};

Expectation readExpectation(const QString& fileName, const QString& parsedName)
{
    Expectation expected;
    const QString content = QString::fromUtf8(readFile(fileName));
    for (QString line : content.split('\n')) {
        line.replace(QLatin1String("@FILE@"), parsedName);
        if (line.isEmpty() || line.startsWith('#')) {
            continue;
        }
        if (line.startsWith(QLatin1String("result "))) {
            expected.result = line.endsWith(QLatin1String(" true"));
        } else if (line.startsWith(QLatin1String("log "))) {
            expected.log.append(line.mid(4));
        } else {
            expected.model.append(line);
        }
    }
    return expected;
}

QStringList describeModel(const QHash<QString, TranslationLanguage*>& languages)
{
    QStringList languageIds = languages.keys();
    languageIds.sort();
    QStringList lines;
    for (const QString& languageId : languageIds) {
        const TranslationLanguage* language = languages.value(languageId);
        lines.append("language " + language->getId());
        for (const QString& stringId : language->getStringIds()) {
            const TranslationString* string = language->getString(stringId);
            lines.append("string " + string->getId());
            for (int index = 0; index < string->getNumText(); ++index) {
                const TranslationText* text = string->getText(index);
                lines.append(QStringLiteral("text %1 %2 %3 \"%4\"")
                                 .arg(text->getFontSize())
                                 .arg(text->getPosX())
                                 .arg(text->getPosY())
                                 .arg(text->getText()));
            }
        }
    }
    return lines;
}

// A log line as the expectations write it; the source line only where the
// expectation names one.
QString describeEntry(const LogCapture::Entry& entry, const QString& expected)
{
    const QString place = entry.file + ':' + entry.function;
    const QString withLine = place + ':' + QString::number(entry.line);
    const QString level = Logger::levelToString(entry.level);
    const bool expectsLine = expected.startsWith(level + ' ' + withLine + ' ');
    return level + ' ' + (expectsLine ? withLine : place) + ' ' + entry.message;
}

} // namespace

class TranslationParserGoldenTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parsesCase_data()
    {
        QTest::addColumn<QString>("caseName");
        const QDir golden(QStringLiteral(SELVANE_GOLDEN_DIR));
        const QStringList cases = golden.entryList({QStringLiteral("*.expected")}, QDir::Files);
        QVERIFY(cases.size() >= 11);
        for (const QString& file : cases) {
            const QString caseName = QFileInfo(file).completeBaseName();
            QString rowName = caseName;
            rowName.replace('-', ' ');
            QTest::newRow(qPrintable(rowName)) << caseName;
        }
    }

    void parsesCase()
    {
        QFETCH(QString, caseName);
        const QDir golden(QStringLiteral(SELVANE_GOLDEN_DIR));
        const QString input = golden.filePath(caseName + ".xml");
        const Expectation expected =
            readExpectation(golden.filePath(caseName + ".expected"), input);
        if (caseName == QLatin1String("does-not-exist")) {
            QVERIFY(!QFileInfo::exists(input));
        }

        LogCapture capture;
        QHash<QString, TranslationLanguage*> languages;
        bool result = false;
        {
            TranslationParser parser(languages);
            result = parser.parse(input);
        }
        QStringList log;
        for (qsizetype i = 0; i < capture.entries().size(); ++i) {
            log.append(describeEntry(capture.entries().at(i), expected.log.value(i)));
        }
        const QStringList model = describeModel(languages);
        qDeleteAll(languages);

        QCOMPARE(model, expected.model);
        QCOMPARE(log, expected.log);
        QCOMPARE(result, expected.result);
    }

    void rootNameIsNotExamined()
    {
        const QDir golden(QStringLiteral(SELVANE_GOLDEN_DIR));
        QCOMPARE(readExpectation(golden.filePath("any-root.expected"), QString()).model,
                 readExpectation(golden.filePath("nesting.expected"), QString()).model);
    }
};

QTEST_GUILESS_MAIN(TranslationParserGoldenTest)
#include "test_translationparser_golden.moc"
