#include "LogCapture.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationString.h"
#include "translation/TranslationText.h"

#include <QFontDatabase>
#include <QFontMetricsF>
#include <QImage>
#include <QPaintDevice>
#include <QPaintEngine>
#include <QPainter>
#include <QtTest>

using Orvanta::Logger;

namespace {

const QString dejaVuSans = QStringLiteral("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf");
// 72 dots per inch: one point is one pixel.
constexpr int dotsPerMeterAt72Dpi = 2835;

struct DrawnText
{
    QPointF position;
    QString text;
    QString family;
    int pointSize;
    QColor pen;
};

// A paint engine that draws nothing and records every text drawn through it,
// with the font and pen in force, so positions can be checked exactly.
class RecordingEngine : public QPaintEngine
{
public:
    bool begin(QPaintDevice*) override { return true; }
    bool end() override { return true; }
    void updateState(const QPaintEngineState& changed) override
    {
        if (changed.state() & DirtyPen) {
            pen = changed.pen().color();
        }
    }
    void drawPixmap(const QRectF&, const QPixmap&, const QRectF&) override {}
    void drawTextItem(const QPointF& position, const QTextItem& item) override
    {
        drawn.append({position, item.text(), item.font().family(), item.font().pointSize(), pen});
    }
    Type type() const override { return User; }

    QList<DrawnText> drawn;

private:
    QColor pen;
};

class RecordingDevice : public QPaintDevice
{
public:
    QPaintEngine* paintEngine() const override { return &engine; }
    const QList<DrawnText>& drawn() const { return engine.drawn; }

protected:
    int metric(PaintDeviceMetric metric) const override
    {
        switch (metric) {
        case PdmWidth:
        case PdmHeight:
        case PdmWidthMM:
        case PdmHeightMM:
            return 1000;
        case PdmDpiX:
        case PdmDpiY:
        case PdmPhysicalDpiX:
        case PdmPhysicalDpiY:
            return 72;
        case PdmDevicePixelRatioScaled:
            return static_cast<int>(devicePixelRatioFScale());
        default:
            return 1;
        }
    }

private:
    mutable RecordingEngine engine;
};

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

QImage whiteImage(int width, int height)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(Qt::white);
    image.setDotsPerMeterX(dotsPerMeterAt72Dpi);
    image.setDotsPerMeterY(dotsPerMeterAt72Dpi);
    return image;
}

bool isDark(QRgb pixel)
{
    return qGray(pixel) < 128;
}

// The smallest rectangle holding every dark pixel; null when there is none.
QRect darkBox(const QImage& image)
{
    QRect box;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if (isDark(image.pixel(x, y))) {
                box = box.united(QRect(x, y, 1, 1));
            }
        }
    }
    return box;
}

QImage render(const TranslationLanguage& language, double xScale, double yScale,
              const std::function<void(QPainter&)>& draw = {})
{
    QImage image = whiteImage(600, 300);
    QPainter painter(&image);
    if (draw) {
        draw(painter);
    } else {
        language.renderString(painter, xScale, yScale, QStringLiteral("word"));
    }
    return image;
}

} // namespace

class TranslationModelTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QFontDatabase::addApplicationFont(dejaVuSans) != -1,
                 "fonts-dejavu-core is needed to check the rendering");
    }

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

    void renderStringLogsOnEveryCall()
    {
        std::unique_ptr<TranslationLanguage> language(threeLineLanguage());
        LogCapture capture;
        RecordingDevice device;
        {
            QPainter painter(&device);
            language->renderString(painter, 1.0, 1.0, QStringLiteral("lines"));
            language->renderString(painter, 1.0, 1.0, QStringLiteral("missing"), 3);
            language->renderString(painter, 1.0, 1.0, QStringLiteral("missing"), "x");
        }
        QCOMPARE(capture.messages(),
                 (QStringList{"Cannot find string 'lines' for language 'en'",
                              "Cannot find string 'missing' for language 'en'",
                              "Cannot find string 'missing' for language 'en'"}));
        for (const LogCapture::Entry& entry : capture.entries()) {
            QCOMPARE(entry.level, Logger::LEVEL_BUG);
            QCOMPARE(entry.file, QStringLiteral("TranslationLanguage"));
            QCOMPARE(entry.function, QStringLiteral("renderString"));
        }
        QCOMPARE(device.drawn().size(), 3); // only the string that exists
    }

    void renderStringDrawsEveryLineInOrder_data()
    {
        QTest::addColumn<double>("xScale");
        QTest::addColumn<double>("yScale");
        QTest::addColumn<QList<QPointF>>("positions");
        QTest::newRow("unscaled") << 1.0 << 1.0 << QList<QPointF>{{75, 100}, {-75, 200}, {0, 0}};
        QTest::newRow("halved positions truncate toward zero")
            << 0.5 << 0.5 << QList<QPointF>{{37, 50}, {-37, 100}, {0, 0}};
        QTest::newRow("negative scale truncates toward zero")
            << -0.5 << 1.25 << QList<QPointF>{{-37, 125}, {37, 250}, {0, 0}};
        QTest::newRow("fractional scale")
            << 1.333 << 0.999 << QList<QPointF>{{99, 99}, {-99, 199}, {0, 0}};
    }

    void renderStringDrawsEveryLineInOrder()
    {
        QFETCH(double, xScale);
        QFETCH(double, yScale);
        QFETCH(QList<QPointF>, positions);
        std::unique_ptr<TranslationLanguage> language(threeLineLanguage());
        RecordingDevice device;
        QPainter painter(&device);
        painter.setPen(Qt::red);
        language->renderString(painter, xScale, yScale, QStringLiteral("lines"), 42);

        const QList<DrawnText>& drawn = device.drawn();
        QCOMPARE(drawn.size(), 3);
        const QStringList texts{"first", "count 42", "last"};
        const QList<int> sizes{10, 20, 30};
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(drawn[i].position, positions[i]);
            QCOMPARE(drawn[i].text, texts[i]);
            QCOMPARE(drawn[i].family, QStringLiteral("DejaVu Sans"));
            // The point size never follows the scale factors.
            QCOMPARE(drawn[i].pointSize, sizes[i]);
            QCOMPARE(drawn[i].pen, QColor(Qt::black));
        }
        // The painter keeps the last line's font and the black pen.
        QCOMPARE(painter.font().family(), QStringLiteral("DejaVu Sans"));
        QCOMPARE(painter.font().pointSize(), 30);
        QCOMPARE(painter.font().weight(), QFont::Normal);
        QVERIFY(!painter.font().italic());
        QCOMPARE(painter.pen().color(), QColor(Qt::black));
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
        RecordingDevice device;
        {
            QPainter painter(&device);
            language.renderString(painter, 1.0, 1.0, QStringLiteral("s"));
            language.renderString(painter, 1.0, 1.0, QStringLiteral("s"), 7);
            language.renderString(painter, 1.0, 1.0, QStringLiteral("s"), QStringLiteral("seven"));
        }
        QStringList texts;
        for (const DrawnText& item : device.drawn()) {
            texts.append(item.text);
        }
        // Both lines of a string get the same argument.
        QCOMPARE(texts, (QStringList{drawn[0], drawn[0], drawn[1], drawn[1], drawn[2], drawn[2]}));
    }

    // The same drawing on real pixels, with the DejaVu Sans font registered.
    void pixelsFallInTheBaselineBox()
    {
        TranslationLanguage language(QStringLiteral("en"));
        auto* string = new TranslationString(QStringLiteral("word"));
        string->addText(new TranslationText(40, 50, 100, QStringLiteral("Hg")));
        language.addString(string);
        const QImage image = render(language, 1.0, 1.0);

        const QFontMetricsF metrics(QFont(QStringLiteral("DejaVu Sans"), 40), &image);
        const QRectF expected(50, 100 - metrics.ascent(), metrics.horizontalAdvance("Hg"),
                              metrics.ascent() + metrics.descent());
        const QRect box = darkBox(image);
        QVERIFY(!box.isNull());
        QVERIFY2(expected.adjusted(-1, -1, 1, 1).contains(QRectF(box)),
                 qPrintable(QStringLiteral("dark pixels at %1,%2 %3x%4")
                                .arg(box.x())
                                .arg(box.y())
                                .arg(box.width())
                                .arg(box.height())));
        // The capital H stands on the baseline and reaches well above it; the g
        // hangs below it.
        QVERIFY(box.top() < 100 - 25);
        QVERIFY(box.bottom() > 100);
        QVERIFY(box.left() >= 50 && box.left() <= 56);
    }

    void scaleMovesTextButKeepsItsSize()
    {
        TranslationLanguage language(QStringLiteral("en"));
        auto* string = new TranslationString(QStringLiteral("word"));
        string->addText(new TranslationText(30, 60, 80, QStringLiteral("H")));
        language.addString(string);
        const QRect unscaled = darkBox(render(language, 1.0, 1.0));
        const QRect scaled = darkBox(render(language, 2.5, 2.0));
        QVERIFY(!unscaled.isNull() && !scaled.isNull());
        QCOMPARE(scaled.size(), unscaled.size());
        QCOMPARE(scaled.left() - unscaled.left(), 150 - 60);
        QCOMPARE(scaled.bottom() - unscaled.bottom(), 160 - 80);
    }

    void argumentFormsDrawTheSamePixels()
    {
        TranslationLanguage language(QStringLiteral("en"));
        auto* marked = new TranslationString(QStringLiteral("marked"));
        marked->addText(new TranslationText(24, 10, 50, QStringLiteral("N=%1")));
        language.addString(marked);
        auto* plain = new TranslationString(QStringLiteral("plain"));
        plain->addText(new TranslationText(24, 10, 50, QStringLiteral("N=7")));
        language.addString(plain);

        const auto draw = [&language](auto... argument) {
            return render(language, 1.0, 1.0, [&](QPainter& painter) {
                language.renderString(painter, 1.0, 1.0, argument...);
            });
        };
        const QImage number = draw(QStringLiteral("marked"), 7);
        const QImage text = draw(QStringLiteral("marked"), QStringLiteral("7"));
        const QImage written = draw(QStringLiteral("plain"));
        const QImage unfilled = draw(QStringLiteral("marked"));
        QCOMPARE(number, written);
        QCOMPARE(text, written);
        QVERIFY(darkBox(unfilled).width() > darkBox(written).width());
        QVERIFY(darkBox(draw(QStringLiteral("unknown"), 7)).isNull());
    }
};

QTEST_MAIN(TranslationModelTest)
#include "test_translationmodel.moc"
