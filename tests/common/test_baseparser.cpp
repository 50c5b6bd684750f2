#include "LogCapture.h"
#include "TestFiles.h"
#include "common/BaseParser.h"

#include <QTemporaryDir>
#include <QXmlAttributes>
#include <QXmlParseException>
#include <QtTest>

#include <limits>

using Orvanta::BaseParser;
using Orvanta::Logger;

namespace {

QXmlAttributes attributes(std::initializer_list<std::pair<QString, QString>> values)
{
    QXmlAttributes result;
    for (const auto& [name, value] : values) {
        result.append(name, QString(), name, value);
    }
    return result;
}

// Records the elements it sees; an element named "recoverable" reports a
// recoverable error and one named "fatal" a fatal one, each answering the
// reader with what the error callback returned.
class RecordingParser : public BaseParser
{
public:
    bool startElement(const QString&, const QString&, const QString& qualifiedName,
                      const QXmlAttributes&) override
    {
        seen.append(qualifiedName);
        const QXmlParseException exception(QStringLiteral("consumer says so"), 3,
                                           7); // column, line
        if (qualifiedName == QLatin1String("recoverable")) {
            return error(exception);
        }
        if (qualifiedName == QLatin1String("fatal")) {
            return fatalError(exception);
        }
        if (qualifiedName == QLatin1String("descend")) {
            setDepth(QStringLiteral("descended"));
        }
        return true;
    }

    QString depth() const { return getDepth(); }

    QStringList seen;
};

} // namespace

class BaseParserTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void malformedStringLogsFatalErrorOnMemoryBuffer()
    {
        LogCapture capture;
        RecordingParser parser;
        QVERIFY(!parser.parseFromString(QStringLiteral("<a>\n  <b></a>")));
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& entry = capture.entries().first();
        QCOMPARE(entry.message, QStringLiteral("Parser fatal error on line 2, column 9 in file "
                                               "<memory_buffer>: tag mismatch"));
        QCOMPARE(entry.level, Logger::LEVEL_ERROR);
        QCOMPARE(entry.file, QStringLiteral("BaseParser"));
        QCOMPARE(entry.function, QStringLiteral("fatalError"));
        QCOMPARE(entry.line, 337);
    }

    void wellFormedStringParsesSilently()
    {
        LogCapture capture;
        RecordingParser parser;
        QVERIFY(parser.parseFromString(QStringLiteral("<root><x y='1'/><z/></root>")));
        QCOMPARE(parser.seen, (QStringList{"root", "x", "z"}));
        QVERIFY(capture.entries().isEmpty());
    }

    void namespacePrefixesStayInNames()
    {
        RecordingParser parser;
        QVERIFY(parser.parseFromString(
            QStringLiteral("<o:root xmlns:o='urn:x'><o:language/><language/></o:root>")));
        QCOMPARE(parser.seen, (QStringList{"o:root", "o:language", "language"}));
    }

    void missingFileIsReported()
    {
        LogCapture capture;
        RecordingParser parser;
        const QString name = QStringLiteral("/nonexistent/selvane/translations.xml");
        QVERIFY(!parser.parse(name));
        QCOMPARE(capture.messages(), QStringList{"File '" + name + "' does not exist"});
        QCOMPARE(capture.entries().first().level, Logger::LEVEL_ERROR);
        QCOMPARE(capture.entries().first().function, QStringLiteral("parse"));
        QVERIFY(parser.seen.isEmpty());
    }

    void fileIsParsedAndNamedInMessages()
    {
        QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("broken.xml"));
        QVERIFY(writeFile(name, "<root>\n<open>\n</root>\n"));
        LogCapture capture;
        RecordingParser parser;
        QVERIFY(!parser.parse(name));
        QCOMPARE(parser.seen, (QStringList{"root", "open"}));
        QCOMPARE(capture.messages(), QStringList{"Parser fatal error on line 3, column 7 in file " +
                                                 name + ": tag mismatch"});
    }

    void directoryIsABrokenDocument()
    {
        QTemporaryDir dir;
        LogCapture capture;
        RecordingParser parser;
        QVERIFY(!parser.parse(dir.path()));
        QCOMPARE(capture.entries().size(), 1);
        QCOMPARE(capture.entries().first().function, QStringLiteral("fatalError"));
        QVERIFY(capture.entries().first().message.contains(" in file " + dir.path() + ": "));
    }

    void recoverableErrorContinuesAndFatalErrorStops()
    {
        LogCapture capture;
        RecordingParser parser;
        QVERIFY(parser.parseFromString(QStringLiteral("<root><recoverable/><after/></root>")));
        QCOMPARE(parser.seen, (QStringList{"root", "recoverable", "after"}));
        const LogCapture::Entry* recoverable = capture.find(
            "Parser error on line 7, column3 in file <memory_buffer>: consumer says so");
        QVERIFY(recoverable);
        QCOMPARE(recoverable->level, Logger::LEVEL_ERROR);
        QCOMPARE(recoverable->function, QStringLiteral("error"));
        QCOMPARE(recoverable->line, 326);

        capture.clear();
        parser.seen.clear();
        QVERIFY(!parser.parseFromString(QStringLiteral("<root><fatal/><after/></root>")));
        QCOMPARE(parser.seen, (QStringList{"root", "fatal"}));
        QCOMPARE(capture.messages().first(),
                 QStringLiteral("Parser fatal error on line 7, column 3 in file <memory_buffer>: "
                                "consumer says so"));
    }

    void warningContinues()
    {
        LogCapture capture;
        RecordingParser parser;
        QVERIFY(parser.warning(QXmlParseException(QStringLiteral("odd"), 40, 12)));
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& entry = capture.entries().first();
        QCOMPARE(entry.message,
                 QStringLiteral("Parser warning on line 12, column40 in file : odd"));
        QCOMPARE(entry.level, Logger::LEVEL_WARNING);
        QCOMPARE(entry.function, QStringLiteral("warning"));
        QCOMPARE(entry.line, 315);
    }

    void depthStartsAtTopOnEveryParse()
    {
        RecordingParser parser;
        QCOMPARE(parser.depth(), QString());
        QVERIFY(parser.parseFromString(QStringLiteral("<root><descend/></root>")));
        QCOMPARE(parser.depth(), QStringLiteral("descended"));
        QVERIFY(parser.parseFromString(QStringLiteral("<root/>")));
        QCOMPARE(parser.depth(), QStringLiteral("top"));
    }

    void missingAttributeMessageNamesFileAndDepth()
    {
        LogCapture capture;
        RecordingParser parser;
        QVERIFY(parser.parseFromString(QStringLiteral("<root><descend/></root>")));
        parser.logMissingAttribute(QStringLiteral("pos_x"), QStringLiteral("0"));
        const LogCapture::Entry* entry =
            capture.find("Missing attribute 'pos_x'.  Defaulting to '0'.  File: "
                         "'<memory_buffer>',  Depth: 'descended'");
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_WARNING);
        QCOMPARE(entry->function, QStringLiteral("logMissingAttribute"));
    }

    void grabIntConverts()
    {
        LogCapture capture;
        RecordingParser parser;
        const QXmlAttributes values = attributes({{"a", "42"}, {"b", "-7"}, {"c", " 5 "}});
        QCOMPARE(parser.grabInt("a", values, true, 1), 42);
        QCOMPARE(parser.grabInt("b", values, true, 1), -7);
        QCOMPARE(parser.grabInt("c", values, true, 1), 5);
        QVERIFY(capture.entries().isEmpty());
    }

    void grabIntOfMalformedValueWarnsAndDefaults()
    {
        LogCapture capture;
        RecordingParser parser;
        QVERIFY(parser.parseFromString(QStringLiteral("<root/>")));
        QCOMPARE(parser.grabInt("size", attributes({{"size", "12abc"}}), false, 12), 12);
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& entry = capture.entries().first();
        QCOMPARE(entry.message, QStringLiteral("Could not convert '12abc' to an int.  Defaulting "
                                               "to 12'.  File: '<memory_buffer>'"));
        QCOMPARE(entry.level, Logger::LEVEL_WARNING);
        QCOMPARE(entry.function, QStringLiteral("grabInt"));
        QCOMPARE(entry.line, 302);
    }

    void grabOfAbsentAttribute_data()
    {
        QTest::addColumn<bool>("required");
        QTest::addColumn<QStringList>("messages");
        QTest::newRow("not required is silent") << false << QStringList{};
        QTest::newRow("required is reported with the default")
            << true
            << QStringList{"Missing attribute 'x'.  Defaulting to '-3'.  File: '',  Depth: ''",
                           "Missing attribute 'x'.  Defaulting to '4'.  File: '',  Depth: ''",
                           "Missing attribute 'x'.  Defaulting to '2.5'.  File: '',  Depth: ''",
                           "Missing attribute 'x'.  Defaulting to '0.25'.  File: '',  Depth: ''",
                           "Missing attribute 'x'.  Defaulting to 'q'.  File: '',  Depth: ''",
                           "Missing attribute 'x'.  Defaulting to 'true'.  File: '',  Depth: ''",
                           "Missing attribute 'x'.  Defaulting to 'fallback'.  File: '',  "
                           "Depth: ''"};
    }

    void grabOfAbsentAttribute()
    {
        QFETCH(bool, required);
        QFETCH(QStringList, messages);
        LogCapture capture;
        RecordingParser parser;
        const QXmlAttributes none = attributes({{"other", "1"}});
        QCOMPARE(parser.grabInt("x", none, required, -3), -3);
        QCOMPARE(parser.grabUInt("x", none, required, 4u), 4u);
        QCOMPARE(parser.grabDouble("x", none, required, 2.5), 2.5);
        QCOMPARE(parser.grabFloat("x", none, required, 0.25f), 0.25f);
        QCOMPARE(parser.grabChar("x", none, required, QChar('q')), QChar('q'));
        QCOMPARE(parser.grabBool("x", none, required, true), true);
        QCOMPARE(parser.grabString("x", none, required, "fallback"), QStringLiteral("fallback"));
        QCOMPARE(capture.messages(), messages);
    }

    void numericConversionWarnings_data()
    {
        QTest::addColumn<QString>("function");
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("line");
        QTest::newRow("uint of a negative number")
            << "grabUInt"
            << "Could not convert '-1' to a uint.  Defaulting to 7'.  File: ''" << 269;
        QTest::newRow("double of a word")
            << "grabDouble"
            << "Could not convert 'wide' to a double.  Defaulting to 1.5'.  File: ''" << 236;
        QTest::newRow("float of a comma decimal")
            << "grabFloat"
            << "Could not convert '0,5' to a float.  Defaulting to 0.75'.  File: ''" << 203;
    }

    void numericConversionWarnings()
    {
        QFETCH(QString, function);
        QFETCH(QString, message);
        QFETCH(int, line);
        LogCapture capture;
        RecordingParser parser;
        if (function == QLatin1String("grabUInt")) {
            QCOMPARE(parser.grabUInt("v", attributes({{"v", "-1"}}), true, 7u), 7u);
        } else if (function == QLatin1String("grabDouble")) {
            QCOMPARE(parser.grabDouble("v", attributes({{"v", "wide"}}), true, 1.5), 1.5);
        } else {
            QCOMPARE(parser.grabFloat("v", attributes({{"v", "0,5"}}), true, 0.75f), 0.75f);
        }
        QCOMPARE(capture.entries().size(), 1);
        QCOMPARE(capture.entries().first().message, message);
        QCOMPARE(capture.entries().first().function, function);
        QCOMPARE(capture.entries().first().line, line);
        QCOMPARE(capture.entries().first().level, Logger::LEVEL_WARNING);
    }

    void numericConversionsSucceed()
    {
        LogCapture capture;
        RecordingParser parser;
        const QXmlAttributes values =
            attributes({{"u", "4000000000"}, {"d", "-2.5e3"}, {"f", "0.5"}});
        QCOMPARE(parser.grabUInt("u", values, true, 0u), 4000000000u);
        QCOMPARE(parser.grabDouble("d", values, true, 0.0), -2500.0);
        QCOMPARE(parser.grabFloat("f", values, true, 0.0f), 0.5f);
        QVERIFY(capture.entries().isEmpty());
    }

    void grabCharOfEmptyValueLogsEvenWhenNotRequired()
    {
        LogCapture capture;
        RecordingParser parser;
        QCOMPARE(parser.grabChar("c", attributes({{"c", ""}}), false, QChar('z')), QChar('z'));
        QCOMPARE(capture.messages(),
                 QStringList{"Missing attribute 'c'.  Defaulting to 'z'.  File: '',  Depth: ''"});
        capture.clear();
        QCOMPARE(parser.grabChar("c", attributes({{"c", "xyz"}}), false, QChar('z')), QChar('x'));
        QVERIFY(capture.entries().isEmpty());
    }

    void grabBool_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<bool>("defaultValue");
        QTest::addColumn<bool>("expected");
        QTest::addColumn<bool>("reported");
        QTest::newRow("true") << "true" << false << true << false;
        QTest::newRow("upper-case TRUE") << "TRUE" << false << true << false;
        QTest::newRow("mixed-case False") << "False" << true << false << false;
        QTest::newRow("yes is not a bool") << "yes" << false << false << true;
        QTest::newRow("1 is not a bool") << "1" << true << true << true;
        QTest::newRow("an empty value is reported") << "" << true << true << true;
    }

    void grabBool()
    {
        QFETCH(QString, value);
        QFETCH(bool, defaultValue);
        QFETCH(bool, expected);
        QFETCH(bool, reported);
        LogCapture capture;
        RecordingParser parser;
        QCOMPARE(parser.grabBool("b", attributes({{"b", value}}), false, defaultValue), expected);
        const QString message = "Missing attribute 'b'.  Defaulting to '" +
                                QString(defaultValue ? "true" : "false") +
                                "'.  File: '',  Depth: ''";
        QCOMPARE(capture.messages(), reported ? QStringList{message} : QStringList{});
    }

    void grabStringTreatsEmptyAsAbsent()
    {
        LogCapture capture;
        RecordingParser parser;
        const QXmlAttributes values = attributes({{"s", ""}, {"t", "text"}});
        QCOMPARE(parser.grabString("s", values, false, "d"), QStringLiteral("d"));
        QVERIFY(capture.entries().isEmpty());
        QCOMPARE(parser.grabString("s", values, true, "d"), QStringLiteral("d"));
        QCOMPARE(capture.messages(),
                 QStringList{"Missing attribute 's'.  Defaulting to 'd'.  File: '',  Depth: ''"});
        QCOMPARE(parser.grabString("t", values, true, "d"), QStringLiteral("text"));
    }
};

QTEST_GUILESS_MAIN(BaseParserTest)
#include "test_baseparser.moc"
