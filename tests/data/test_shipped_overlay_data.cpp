#include "LogCapture.h"
#include "overlay/OverlayText.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationParser.h"
#include "translation/TranslationString.h"
#include "translation/TranslationText.h"

#include <QFileInfo>
#include <QFont>
#include <QFontDatabase>
#include <QFontMetricsF>
#include <QHash>
#include <QImage>
#include <QPainter>
#include <QRectF>
#include <QtTest>

// Checks the overlay data as built: every language has every string, every line of every
// string, drawn with the widest argument it can get, stays inside the area the pictures keep
// free for it, on a light background, clear of the release badges and of every other line,
// and the key labels fit on their key caps.
namespace {

const QString dataDir = QStringLiteral(SELVANE_BUILT_DATA_DIR);
const QString systemFont = QStringLiteral(SELVANE_SYSTEM_FONT);
constexpr int pictureWidth = 1024;
constexpr int pictureHeight = 768;
// 72 dots per inch: one point of a font size is one pixel of the picture.
constexpr int dotsPerMetre = 2835;

const QStringList requiredLanguages = {"en", "de", "fr", "es", "it", "pt", "pt_BR", "pl", "ru"};

enum class Picture
{
    Keyboard,
    Mouse,
    Busy
};
const QList<Picture> allPictures = {Picture::Keyboard, Picture::Mouse, Picture::Busy};

QString pictureName(Picture picture)
{
    switch (picture) {
    case Picture::Keyboard:
        return QStringLiteral("configure-keyboard");
    case Picture::Mouse:
        return QStringLiteral("configure-mouse");
    case Picture::Busy:
        return QStringLiteral("please-wait-mouse");
    }
    return QString();
}

QRectF area(qreal left, qreal top, qreal right, qreal bottom)
{
    return QRectF(QPointF(left, top), QPointF(right, bottom));
}

// The areas each picture keeps free for a string; every line of the string lies inside one
// of them. A string is drawn on exactly the pictures that list it.
struct Area
{
    Picture picture;
    QString id;
    QRectF rect;
};

QList<Area> stationAreas(Picture picture)
{
    return {{picture, "station-num", area(160, 40, 744, 100)},
            {picture, "station-name", area(160, 100, 816, 134)},
            {picture, "station-location", area(160, 134, 816, 176)}};
}

QList<Area> makeAreas()
{
    const QRectF heading = area(56, 226, 968, 312);
    const QRectF instruction = area(56, 470, 968, 596);
    const QRectF freeCount = area(112, 660, 544, 712);
    const QRectF assignedCount = area(576, 660, 976, 712);
    QList<Area> areas = stationAreas(Picture::Keyboard) + stationAreas(Picture::Mouse);
    areas += {{Picture::Keyboard, "configure-keyboard", heading},
              {Picture::Keyboard, "configure-keyboard-key", instruction},
              {Picture::Keyboard, "keyboards-available", freeCount},
              {Picture::Keyboard, "keyboards-assigned", assignedCount},
              {Picture::Mouse, "configure-mouse", area(56, 226, 968, 276)},
              {Picture::Mouse, "configure-mouse", instruction},
              {Picture::Mouse, "mice-available", freeCount},
              {Picture::Mouse, "mice-assigned", assignedCount},
              {Picture::Busy, "please-wait-mouse", area(178, 434, 846, 564)}};
    return areas;
}
const QList<Area> areas = makeAreas();

// The widest argument each string can get; null for the strings drawn without one.
const QString widestTag = QStringLiteral("READING ROOM, NORTH WING PC 12");
const QHash<QString, QString> widestArguments = {{"station-num", "47"},
                                                 {"station-name", widestTag},
                                                 {"station-location", widestTag},
                                                 {"configure-keyboard", QString()},
                                                 {"configure-keyboard-key", "F12"},
                                                 {"keyboards-available", "999"},
                                                 {"keyboards-assigned", "999"},
                                                 {"configure-mouse", QString()},
                                                 {"mice-available", "999"},
                                                 {"mice-assigned", "999"},
                                                 {"please-wait-mouse", QString()}};

// The keyboard picture's key caps: labels start at these x on the baseline y 390, written in
// the font of the last line of "configure-keyboard".
const QList<int> keyLabelXs = {518, 595, 672};
constexpr int keyLabelBaseline = 390;

QStringList allKeyLabels()
{
    QStringList labels;
    for (int n = 1; n <= 12; ++n) {
        labels.append(QStringLiteral("F%1").arg(n));
    }
    for (char c = 'A'; c <= 'Z'; ++c) {
        labels.append(QString(QChar(c)));
    }
    for (char c = '0'; c <= '9'; ++c) {
        labels.append(QString(QChar(c)));
    }
    return labels;
}

QImage measuringDevice()
{
    QImage image(pictureWidth, pictureHeight, QImage::Format_ARGB32_Premultiplied);
    image.setDotsPerMeterX(dotsPerMetre);
    image.setDotsPerMeterY(dotsPerMetre);
    return image;
}

// The box that text drawn at baseline start (x, y) covers: the font's full height and the
// wider of its advance and its glyphs' extent.
QRectF textBox(const QString& text, int fontSize, int x, int y)
{
    static const QImage device = measuringDevice();
    const QFontMetricsF metrics(QFont("DejaVu Sans", fontSize), &device);
    const QRectF advance(0, -metrics.ascent(), metrics.horizontalAdvance(text), metrics.height());
    return advance.united(metrics.boundingRect(text)).translated(x, y);
}

QString describe(const QRectF& box)
{
    return QStringLiteral("(%1, %2)-(%3, %4)")
        .arg(box.left())
        .arg(box.top())
        .arg(box.right())
        .arg(box.bottom());
}

// The first pixel of the box that fails the check, described, or an empty string.
template <typename Check>
QString firstPixelFailing(const QImage& image, const QRectF& box, Check check)
{
    const QRect pixels = box.toAlignedRect().intersected(image.rect());
    for (int y = pixels.top(); y <= pixels.bottom(); ++y) {
        for (int x = pixels.left(); x <= pixels.right(); ++x) {
            if (!check(image.pixel(x, y))) {
                return QStringLiteral("pixel (%1, %2) is #%3")
                    .arg(x)
                    .arg(y)
                    .arg(image.pixel(x, y), 8, 16, QChar('0'));
            }
        }
    }
    return QString();
}

bool isLight(QRgb pixel)
{
    return qGray(pixel) >= 200;
}

bool isDark(QRgb pixel)
{
    return qGray(pixel) < 100;
}

bool isTransparent(QRgb pixel)
{
    return qAlpha(pixel) == 0;
}

// The ids of the strings drawn on the picture, in the order of the area table.
QStringList idsOn(Picture picture)
{
    QStringList ids;
    for (const Area& candidate : areas) {
        if (candidate.picture == picture && !ids.contains(candidate.id)) {
            ids.append(candidate.id);
        }
    }
    return ids;
}

} // namespace

Q_DECLARE_METATYPE(Picture)

class TestShippedOverlayData : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void pictureIsShipped_data();
    void pictureIsShipped();
    void fontIsTheSystemFont();
    void languageHasString_data();
    void languageHasString();
    void lineFitsItsArea_data();
    void lineFitsItsArea();
    void linesDoNotOverlap_data();
    void linesDoNotOverlap();
    void keyLabelsFitTheirCaps_data();
    void keyLabelsFitTheirCaps();
    void drawnTextStaysInItsAreas_data();
    void drawnTextStaysInItsAreas();

private:
    struct Line
    {
        QString description;
        QRectF box;
    };

    QRectF lineBox(const QString& language, const QString& id, int line) const;
    // The lines of an existing string. Every line drawn on the picture in this language (and
    // the key labels on the keyboard).
    QList<Line> linesOn(Picture picture, const QString& language) const;
    int keyLabelFontSize(const QString& language) const;
    QStringList sortedLanguageIds() const;

    LogCapture log;
    QHash<QString, TranslationLanguage*> languages;
    QHash<Picture, QImage> pictures;
    QList<QImage> badges;
};

void TestShippedOverlayData::initTestCase()
{
    QVERIFY2(QFontDatabase::addApplicationFont(systemFont) != -1, qPrintable(systemFont));

    const QString translations = dataDir + "/translations/selvane.xml";
    TranslationParser parser(languages);
    QVERIFY2(parser.parse(translations), qPrintable(translations));
    // No duplicate, no empty id, no missing or malformed attribute.
    QCOMPARE(log.messages(), QStringList());

    for (Picture picture : allPictures) {
        pictures.insert(picture, QImage(dataDir + "/images/" + pictureName(picture) + ".png"));
    }
    badges = {QImage(dataDir + "/images/ALPHA.png"), QImage(dataDir + "/images/BETA.png")};
}

void TestShippedOverlayData::cleanupTestCase()
{
    qDeleteAll(languages);
    languages.clear();
}

void TestShippedOverlayData::pictureIsShipped_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("badge");
    for (Picture picture : allPictures) {
        const QString file = pictureName(picture) + ".png";
        QTest::newRow(qPrintable(file)) << file << false;
    }
    QTest::newRow("ALPHA.png") << "ALPHA.png" << true;
    QTest::newRow("BETA.png") << "BETA.png" << true;
}

// Backgrounds are opaque; badges are transparent but for their ribbon across the top right
// corner.
void TestShippedOverlayData::pictureIsShipped()
{
    QFETCH(QString, file);
    QFETCH(bool, badge);
    const QImage image(dataDir + "/images/" + file);
    QVERIFY2(!image.isNull(), qPrintable(file));
    QCOMPARE(image.size(), QSize(pictureWidth, pictureHeight));
    if (badge) {
        QVERIFY(image.hasAlphaChannel());
        QCOMPARE(qAlpha(image.pixel(pictureWidth / 2, pictureHeight / 2)), 0);
        QCOMPARE(qAlpha(image.pixel(0, pictureHeight - 1)), 0);
        QCOMPARE(qAlpha(image.pixel(pictureWidth - 170, 60)), 255);
    } else {
        const QString failing = firstPixelFailing(image, QRectF(image.rect()),
                                                  [](QRgb pixel) { return qAlpha(pixel) == 255; });
        QVERIFY2(failing.isEmpty(), qPrintable(failing));
    }
}

void TestShippedOverlayData::fontIsTheSystemFont()
{
    const QFileInfo font(dataDir + "/images/DejaVuSans.ttf");
    QVERIFY(font.isSymLink());
    QCOMPARE(font.symLinkTarget(), systemFont);
}

void TestShippedOverlayData::languageHasString_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("id");
    QStringList ids = widestArguments.keys();
    ids.sort();
    QStringList languageIds = sortedLanguageIds();
    for (const QString& required : requiredLanguages) {
        if (!languageIds.contains(required)) {
            languageIds.append(required);
        }
    }
    for (const QString& language : languageIds) {
        for (const QString& id : ids) {
            QTest::addRow("%s %s", qPrintable(language), qPrintable(id)) << language << id;
        }
    }
}

// Each string exists with at least one line; a string drawn with an argument has "%1" in
// every line (a line without it would be drawn with Qt's "argument missing" warning), one
// drawn without an argument has none.
void TestShippedOverlayData::languageHasString()
{
    QFETCH(QString, language);
    QFETCH(QString, id);
    QVERIFY2(languages.contains(language), qPrintable(language));
    const TranslationString* string = languages.value(language)->getString(id);
    QVERIFY(string != nullptr);
    QVERIFY(string->getNumText() > 0);
    const bool takesArgument = !widestArguments.value(id).isNull();
    for (int line = 0; line < string->getNumText(); ++line) {
        const QString value = string->getText(line)->getText();
        QVERIFY2(!value.trimmed().isEmpty(), qPrintable(QStringLiteral("line %1").arg(line + 1)));
        QVERIFY2(value.contains(QLatin1String("%1")) == takesArgument, qPrintable(value));
    }
}

void TestShippedOverlayData::lineFitsItsArea_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("id");
    QTest::addColumn<int>("line");
    QStringList ids = widestArguments.keys();
    ids.sort();
    for (const QString& language : sortedLanguageIds()) {
        for (const QString& id : ids) {
            const TranslationString* string = languages.value(language)->getString(id);
            for (int line = 0; string != nullptr && line < string->getNumText(); ++line) {
                QTest::addRow("%s %s line %d", qPrintable(language), qPrintable(id), line + 1)
                    << language << id << line;
            }
        }
    }
}

// On every picture that shows the string: inside the picture, inside one of the string's
// areas, on light pixels (the text is black) and where both badges are transparent.
void TestShippedOverlayData::lineFitsItsArea()
{
    QFETCH(QString, language);
    QFETCH(QString, id);
    QFETCH(int, line);
    const QRectF box = lineBox(language, id, line);
    const QString where = describe(box);
    QVERIFY2(QRectF(0, 0, pictureWidth, pictureHeight).contains(box), qPrintable(where));

    int pictureCount = 0;
    for (Picture picture : allPictures) {
        bool shown = false;
        bool inside = false;
        for (const Area& candidate : areas) {
            if (candidate.picture == picture && candidate.id == id) {
                shown = true;
                inside = inside || candidate.rect.contains(box);
            }
        }
        if (!shown) {
            continue;
        }
        ++pictureCount;
        const QString onPicture = pictureName(picture) + ": " + where;
        QVERIFY2(inside, qPrintable(onPicture + " is outside the string's areas"));
        const QString dark = firstPixelFailing(pictures.value(picture), box, isLight);
        QVERIFY2(dark.isEmpty(), qPrintable(onPicture + ": " + dark));
    }
    QVERIFY2(pictureCount > 0, "the string has no area on any picture");

    for (const QImage& badge : badges) {
        const QString covered = firstPixelFailing(badge, box, isTransparent);
        QVERIFY2(covered.isEmpty(), qPrintable(where + " under a badge: " + covered));
    }
}

void TestShippedOverlayData::linesDoNotOverlap_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<Picture>("picture");
    for (const QString& language : sortedLanguageIds()) {
        for (Picture picture : allPictures) {
            QTest::addRow("%s %s picture", qPrintable(language), qPrintable(pictureName(picture)))
                << language << picture;
        }
    }
}

void TestShippedOverlayData::linesDoNotOverlap()
{
    QFETCH(QString, language);
    QFETCH(Picture, picture);
    const QList<Line> lines = linesOn(picture, language);
    QVERIFY(!lines.isEmpty());
    for (int first = 0; first < lines.size(); ++first) {
        for (int second = first + 1; second < lines.size(); ++second) {
            QVERIFY2(
                !lines[first].box.intersects(lines[second].box),
                qPrintable(lines[first].description + " overlaps " + lines[second].description));
        }
    }
}

void TestShippedOverlayData::keyLabelsFitTheirCaps_data()
{
    QTest::addColumn<QString>("language");
    for (const QString& language : sortedLanguageIds()) {
        QTest::addRow("%s key labels", qPrintable(language)) << language;
    }
}

// Every key label (F1..F12, A..Z, 0..9) at each of the three places lies on dark key cap
// pixels, written in the size the keyboard picture leaves on the painter.
void TestShippedOverlayData::keyLabelsFitTheirCaps()
{
    QFETCH(QString, language);
    const int fontSize = keyLabelFontSize(language);
    QVERIFY2(fontSize >= 20 && fontSize <= 28, qPrintable(QString::number(fontSize)));
    const QImage& keyboard = pictures.value(Picture::Keyboard);
    for (const QString& label : allKeyLabels()) {
        for (int x : keyLabelXs) {
            const QRectF box = textBox(label, fontSize, x, keyLabelBaseline);
            const QString light = firstPixelFailing(keyboard, box, isDark);
            QVERIFY2(light.isEmpty(),
                     qPrintable(label + " at " + describe(box) + " leaves its cap: " + light));
        }
    }
}

void TestShippedOverlayData::drawnTextStaysInItsAreas_data()
{
    linesDoNotOverlap_data();
}

// Draws the picture's strings the way the overlay does, with its own text layout, on a
// transparent picture: every pixel touched lies inside an area of that picture.
void TestShippedOverlayData::drawnTextStaysInItsAreas()
{
    QFETCH(QString, language);
    QFETCH(Picture, picture);
    QImage drawn = measuringDevice();
    drawn.fill(Qt::transparent);
    {
        QPainter painter(&drawn);
        const TranslationLanguage* translation = languages.value(language);
        const ArtworkPlacement unscaled = ArtworkPlacement::fit(drawn.size(), drawn.size());
        for (const QString& id : idsOn(picture)) {
            const QString argument = widestArguments.value(id);
            std::vector<OverlayText> texts;
            for (const TranslationText& line : argument.isNull()
                                                   ? translation->linesOf(id)
                                                   : translation->linesOf(id, argument)) {
                texts.push_back(OverlayTextLayout::fromTranslation(line, unscaled, drawn));
            }
            OverlayTextLayout::draw(painter, texts);
        }
    }
    int inked = 0;
    for (int y = 0; y < pictureHeight; ++y) {
        for (int x = 0; x < pictureWidth; ++x) {
            if (qAlpha(drawn.pixel(x, y)) == 0) {
                continue;
            }
            ++inked;
            bool inside = false;
            for (const Area& candidate : areas) {
                inside = inside || (candidate.picture == picture &&
                                    candidate.rect.contains(QPointF(x + 0.5, y + 0.5)));
            }
            QVERIFY2(inside, qPrintable(QStringLiteral("pixel (%1, %2) is drawn outside every "
                                                       "area")
                                            .arg(x)
                                            .arg(y)));
        }
    }
    QVERIFY(inked > 0);
}

QRectF TestShippedOverlayData::lineBox(const QString& language, const QString& id, int line) const
{
    const TranslationText* text = languages.value(language)->getString(id)->getText(line);
    const QString argument = widestArguments.value(id);
    const QString value = argument.isNull() ? text->getText() : text->getText().arg(argument);
    return textBox(value, text->getFontSize(), text->getPosX(), text->getPosY());
}

QList<TestShippedOverlayData::Line> TestShippedOverlayData::linesOn(Picture picture,
                                                                    const QString& language) const
{
    QList<Line> lines;
    for (const QString& id : idsOn(picture)) {
        const TranslationString* string = languages.value(language)->getString(id);
        for (int line = 0; string != nullptr && line < string->getNumText(); ++line) {
            lines.append(
                {QStringLiteral("%1 line %2").arg(id).arg(line + 1), lineBox(language, id, line)});
        }
    }
    if (picture == Picture::Keyboard) {
        for (int x : keyLabelXs) {
            lines.append({QStringLiteral("key label at x %1").arg(x),
                          textBox("F12", keyLabelFontSize(language), x, keyLabelBaseline)});
        }
    }
    return lines;
}

int TestShippedOverlayData::keyLabelFontSize(const QString& language) const
{
    const TranslationString* heading = languages.value(language)->getString("configure-keyboard");
    if (heading == nullptr || heading->getNumText() == 0) {
        return 0;
    }
    return heading->getText(heading->getNumText() - 1)->getFontSize();
}

QStringList TestShippedOverlayData::sortedLanguageIds() const
{
    QStringList ids = languages.keys();
    ids.sort();
    return ids;
}

QTEST_MAIN(TestShippedOverlayData)
#include "test_shipped_overlay_data.moc"
