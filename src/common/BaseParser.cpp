#include "common/BaseParser.h"

#include "common/Logger.h"
#include "common/Util.h"

#include <QFile>
#include <QXmlInputSource>
#include <QXmlSimpleReader>

namespace Orvanta {

namespace {
constexpr char logSource[] = "BaseParser";
constexpr char memoryBufferName[] = "<memory_buffer>";
constexpr char topDepth[] = "top";

// The line field of these messages has always been the same number, and log
// readers search for it; it is kept whatever line the code stands on.
constexpr int grabIntLogLine = 302;
constexpr int grabUIntLogLine = 269;
constexpr int grabDoubleLogLine = 236;
constexpr int grabFloatLogLine = 203;
constexpr int warningLogLine = 315;
constexpr int errorLogLine = 326;
constexpr int fatalErrorLogLine = 337;

void writeFixedLine(Logger::Level level, const char* function, int line, const QString& message)
{
    Logger::write(level, QString::fromLatin1(logSource), QString::fromLatin1(function), line,
                  message);
}
} // namespace

bool BaseParser::parse(QString name)
{
    begin(name);
    QFile file(name);
    if (!file.exists()) {
        SELVANE_LOG(LEVEL_ERROR, "File '" + name + "' does not exist");
        return false;
    }
    // An unreadable file (no permission, a directory) gives the reader no
    // data, which it reports as a fatal error like any other broken document.
    file.open(QIODevice::ReadOnly);
    QXmlInputSource source(&file);
    const bool result = run(source);
    file.close();
    return result;
}

bool BaseParser::parseFromString(QString text)
{
    begin(QString::fromLatin1(memoryBufferName));
    QXmlInputSource source;
    source.setData(text);
    return run(source);
}

void BaseParser::begin(const QString& name)
{
    fileName = name;
    depth = QString::fromLatin1(topDepth);
}

bool BaseParser::run(QXmlInputSource& source)
{
    QXmlSimpleReader reader;
    reader.setContentHandler(this);
    reader.setErrorHandler(this);
    // Element and attribute names are reported as written, prefixes included.
    reader.setFeature(QStringLiteral("http://xml.org/sax/features/namespaces"), false);
    return reader.parse(&source);
}

bool BaseParser::warning(const QXmlParseException& exception)
{
    writeFixedLine(Logger::LEVEL_WARNING, "warning", warningLogLine,
                   "Parser warning on line " + QString::number(exception.lineNumber()) +
                       ", column" + QString::number(exception.columnNumber()) + " in file " +
                       fileName + ": " + exception.message());
    return true;
}

bool BaseParser::error(const QXmlParseException& exception)
{
    writeFixedLine(Logger::LEVEL_ERROR, "error", errorLogLine,
                   "Parser error on line " + QString::number(exception.lineNumber()) + ", column" +
                       QString::number(exception.columnNumber()) + " in file " + fileName + ": " +
                       exception.message());
    return true;
}

bool BaseParser::fatalError(const QXmlParseException& exception)
{
    writeFixedLine(Logger::LEVEL_ERROR, "fatalError", fatalErrorLogLine,
                   "Parser fatal error on line " + QString::number(exception.lineNumber()) +
                       ", column " + QString::number(exception.columnNumber()) + " in file " +
                       fileName + ": " + exception.message());
    return false;
}

void BaseParser::logMissingAttribute(QString name, QString defaultText) const
{
    SELVANE_LOG(LEVEL_WARNING, "Missing attribute '" + name + "'.  Defaulting to '" + defaultText +
                                   "'.  File: '" + fileName + "',  Depth: '" + depth + "'");
}

template <typename Number, typename Converter>
Number BaseParser::grabNumber(const QString& name, const QXmlAttributes& attributes, bool required,
                              Number defaultValue, Converter convert, const char* typeWords,
                              const char* function, int line) const
{
    const int index = attributes.index(name);
    if (index < 0) {
        if (required) {
            logMissingAttribute(name, QString::number(defaultValue));
        }
        return defaultValue;
    }
    const QString value = attributes.value(index);
    bool ok = false;
    const Number number = convert(value, &ok);
    if (ok) {
        return number;
    }
    // The quote after the default is unbalanced; log readers know the line so.
    writeFixedLine(Logger::LEVEL_WARNING, function, line,
                   "Could not convert '" + value + "' to " + QLatin1String(typeWords) +
                       ".  Defaulting to " + QString::number(defaultValue) + "'.  File: '" +
                       fileName + "'");
    return defaultValue;
}

int BaseParser::grabInt(const QString& name, const QXmlAttributes& attributes, bool required,
                        int defaultValue) const
{
    return grabNumber(
        name, attributes, required, defaultValue,
        [](const QString& value, bool* ok) { return value.toInt(ok, 10); }, "an int", "grabInt",
        grabIntLogLine);
}

unsigned int BaseParser::grabUInt(const QString& name, const QXmlAttributes& attributes,
                                  bool required, unsigned int defaultValue) const
{
    return grabNumber(
        name, attributes, required, defaultValue,
        [](const QString& value, bool* ok) { return value.toUInt(ok, 10); }, "a uint", "grabUInt",
        grabUIntLogLine);
}

double BaseParser::grabDouble(const QString& name, const QXmlAttributes& attributes, bool required,
                              double defaultValue) const
{
    return grabNumber(
        name, attributes, required, defaultValue,
        [](const QString& value, bool* ok) { return value.toDouble(ok); }, "a double", "grabDouble",
        grabDoubleLogLine);
}

float BaseParser::grabFloat(const QString& name, const QXmlAttributes& attributes, bool required,
                            float defaultValue) const
{
    return grabNumber(
        name, attributes, required, defaultValue,
        [](const QString& value, bool* ok) { return value.toFloat(ok); }, "a float", "grabFloat",
        grabFloatLogLine);
}

QChar BaseParser::grabChar(const QString& name, const QXmlAttributes& attributes, bool required,
                           QChar defaultValue) const
{
    const int index = attributes.index(name);
    if (index < 0) {
        if (required) {
            logMissingAttribute(name, QString(defaultValue));
        }
        return defaultValue;
    }
    const QString value = attributes.value(index);
    if (value.isEmpty()) {
        // An empty character is always a mistake in the file, required or not.
        logMissingAttribute(name, QString(defaultValue));
        return defaultValue;
    }
    return value.at(0);
}

bool BaseParser::grabBool(const QString& name, const QXmlAttributes& attributes, bool required,
                          bool defaultValue) const
{
    const int index = attributes.index(name);
    if (index < 0) {
        if (required) {
            logMissingAttribute(name, boolToString(defaultValue));
        }
        return defaultValue;
    }
    const QString value = attributes.value(index).toLower();
    if (value == QLatin1String("false")) {
        return false;
    }
    if (value == QLatin1String("true")) {
        return true;
    }
    // Anything else, an empty value included, is reported: the attribute was
    // written but says neither true nor false.
    logMissingAttribute(name, boolToString(defaultValue));
    return defaultValue;
}

QString BaseParser::grabString(const QString& name, const QXmlAttributes& attributes, bool required,
                               const QString& defaultValue) const
{
    const int index = attributes.index(name);
    QString value = index < 0 ? QString() : attributes.value(index);
    if (!value.isEmpty()) {
        return value;
    }
    // An empty value counts as an absent one.
    if (required) {
        logMissingAttribute(name, defaultValue);
    }
    return defaultValue;
}

} // namespace Orvanta
