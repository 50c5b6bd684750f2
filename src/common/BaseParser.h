#pragma once

#include <QChar>
#include <QString>
#include <QXmlDefaultHandler>

namespace Orvanta {

// Base of the program's SAX parsers. It runs Qt's simple XML reader over a
// file or a string with itself as content and error handler, logs parse
// errors with their line, column and file, and offers typed attribute readers
// that fall back to a default (and log why) when an attribute is missing or
// malformed. Subclasses override the content callbacks they need.
class BaseParser : public QXmlDefaultHandler
{
public:
    BaseParser() = default;
    ~BaseParser() override = default;

    BaseParser(const BaseParser&) = delete;
    BaseParser& operator=(const BaseParser&) = delete;

    // False when the file does not exist or the XML in it is not well formed.
    bool parse(QString fileName);
    // Parses XML held in memory; messages name the file "<memory_buffer>".
    bool parseFromString(QString text);

    bool warning(const QXmlParseException& exception) override;
    bool error(const QXmlParseException& exception) override;
    bool fatalError(const QXmlParseException& exception) override;

    void logMissingAttribute(QString name, QString defaultText) const;

    int grabInt(const QString& name, const QXmlAttributes& attributes, bool required,
                int defaultValue) const;
    unsigned int grabUInt(const QString& name, const QXmlAttributes& attributes, bool required,
                          unsigned int defaultValue) const;
    double grabDouble(const QString& name, const QXmlAttributes& attributes, bool required,
                      double defaultValue) const;
    float grabFloat(const QString& name, const QXmlAttributes& attributes, bool required,
                    float defaultValue) const;
    QChar grabChar(const QString& name, const QXmlAttributes& attributes, bool required,
                   QChar defaultValue) const;
    bool grabBool(const QString& name, const QXmlAttributes& attributes, bool required,
                  bool defaultValue) const;
    QString grabString(const QString& name, const QXmlAttributes& attributes, bool required,
                       const QString& defaultValue) const;

protected:
    // Where in the document the parser is; "top" when a parse begins.
    QString getDepth() const { return depth; }
    void setDepth(const QString& newDepth) { depth = newDepth; }

private:
    // Names the document for the messages and resets the depth.
    void begin(const QString& name);
    bool run(QXmlInputSource& source);
    // Shared by the numeric readers: `convert` turns the value into a number
    // and reports success; `typeWords` completes "Could not convert '...' to".
    template <typename Number, typename Converter>
    Number grabNumber(const QString& name, const QXmlAttributes& attributes, bool required,
                      Number defaultValue, Converter convert, const char* typeWords,
                      const char* function, int line) const;

    QString fileName;
    QString depth;
};

} // namespace Orvanta
