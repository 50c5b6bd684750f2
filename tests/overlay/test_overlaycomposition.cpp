// The overlay's pictures as the station threads compose them, from the
// shipped artwork and translations: where the artwork lands on screens of
// other shapes, and that the small rectangles a station puts for its texts
// are, pixel for pixel, the whole picture there.
#include "assignment/DisplayConfiguration.h"
#include "overlay/ArtworkPlacement.h"
#include "overlay/OverlayComposer.h"
#include "translation/TranslationLanguage.h"
#include "translation/TranslationParser.h"

#include "Paths.h"

#include <QGuiApplication>
#include <QPainter>
#include <QtTest>

namespace {

const QSize artwork(1024, 768);
// How far Qt's drawings of one large text may differ at the glyphs' edges.
constexpr int textEdgeLevels = 16;

OverlayContent contentOf(const TranslationLanguage* language, OverlayContent::Step step,
                         const QString& key, int available)
{
    OverlayContent content;
    content.generation = 1;
    content.step = step;
    content.stationId = 7;
    content.language = language;
    content.assignmentKey = key;
    content.stationName = QStringLiteral("Reading room");
    content.stationLocation = QStringLiteral("Second floor, east");
    content.available = available;
    content.assigned = 3;
    return content;
}

QString describe(const QRect& area)
{
    return QStringLiteral("%1,%2 %3x%4")
        .arg(area.x())
        .arg(area.y())
        .arg(area.width())
        .arg(area.height());
}

} // namespace

class OverlayCompositionTest : public QObject
{
    Q_OBJECT

public:
    ~OverlayCompositionTest() override { qDeleteAll(languages); }

private Q_SLOTS:
    void initTestCase()
    {
        DisplayConfiguration::initTranslations();
        TranslationParser parser(languages);
        parser.parse(QString::fromLatin1(Orvanta::Paths::translationFile));
        QVERIFY(languages.contains(QStringLiteral("en")));
    }

    void placementKeepsTheArtworksShape_data()
    {
        QTest::addColumn<QSize>("screen");
        QTest::addColumn<double>("scale");
        QTest::addColumn<QRect>("area");
        QTest::newRow("the artwork's size") << QSize(1024, 768) << 1.0 << QRect(0, 0, 1024, 768);
        QTest::newRow("4:3 larger") << QSize(1600, 1200) << 1.5625 << QRect(0, 0, 1600, 1200);
        QTest::newRow("4:3 smaller") << QSize(800, 600) << 0.78125 << QRect(0, 0, 800, 600);
        QTest::newRow("16:9") << QSize(1920, 1080) << 1.40625 << QRect(240, 0, 1440, 1080);
        QTest::newRow("16:10") << QSize(1920, 1200) << 1.5625 << QRect(160, 0, 1600, 1200);
        QTest::newRow("16:9 4K") << QSize(3840, 2160) << 2.8125 << QRect(480, 0, 2880, 2160);
        QTest::newRow("5:4") << QSize(1280, 1024) << 1.25 << QRect(0, 32, 1280, 960);
        QTest::newRow("a tall screen") << QSize(768, 1366) << 0.75 << QRect(0, 395, 768, 576);
    }

    void placementKeepsTheArtworksShape()
    {
        QFETCH(QSize, screen);
        QFETCH(double, scale);
        QFETCH(QRect, area);
        const ArtworkPlacement placement = ArtworkPlacement::fit(artwork, screen);
        QCOMPARE(placement.getScale(), scale);
        QCOMPARE(placement.getArea(), area);
        QCOMPARE(placement.dotsPerMeter(), static_cast<int>(2835 * scale));
        // Text positions are truncated, key caps rounded, both after scaling.
        QCOMPARE(placement.truncated(595, 390),
                 area.topLeft() +
                     QPoint(static_cast<int>(595 * scale), static_cast<int>(390 * scale)));
        QCOMPARE(placement.rounded(595, 390),
                 area.topLeft() + QPoint(qRound(595 * scale), qRound(390 * scale)));
        QCOMPARE(placement.truncated(-75, 0).x(), area.left() + static_cast<int>(-75 * scale));
    }

    // The margins beside the artwork repeat its outermost columns (or rows),
    // so its plain edges run on to the screen's.
    void marginsRepeatTheArtworksEdges_data()
    {
        QTest::addColumn<QSize>("screen");
        QTest::newRow("16:9") << QSize(1920, 1080);
        QTest::newRow("16:10") << QSize(1920, 1200);
        QTest::newRow("5:4") << QSize(1280, 1024);
    }

    void marginsRepeatTheArtworksEdges()
    {
        QFETCH(QSize, screen);
        const auto background =
            BackgroundLibrary::shared().obtain("configure-keyboard.png", QString(), screen);
        QVERIFY(background);
        const QImage& image = background->image;
        const QRect area = background->placement.getArea();
        QCOMPARE(image.size(), screen);
        QVERIFY(background->opaque);
        for (int y = 0; y < screen.height(); ++y) {
            for (int x = 0; x < screen.width(); ++x) {
                if (area.contains(x, y)) {
                    continue;
                }
                const int insideX = qBound(area.left(), x, area.right());
                const int insideY = qBound(area.top(), y, area.bottom());
                if (image.pixel(x, y) != image.pixel(insideX, insideY)) {
                    QFAIL(qPrintable(QStringLiteral("margin pixel %1,%2 is not the edge's %3,%4")
                                         .arg(x)
                                         .arg(y)
                                         .arg(insideX)
                                         .arg(insideY)));
                }
            }
        }
    }

    // What a station puts for its texts is exactly the whole picture there,
    // and nothing outside the texts' bounds differs from the background.
    void partsAreThePixelsOfTheWholePicture_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<int>("step");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QSize>("screen");
        const QList<QSize> screens{QSize(1024, 768), QSize(1920, 1080), QSize(1280, 1024)};
        for (const QString& language : languages.keys()) {
            for (const QSize& screen : screens) {
                const QString size =
                    QStringLiteral("%1x%2").arg(screen.width()).arg(screen.height());
                const auto row = [&](const char* name, OverlayContent::Step step, const char* key) {
                    QTest::addRow("%s %s %s", qPrintable(language), name, qPrintable(size))
                        << language << static_cast<int>(step) << QString::fromLatin1(key) << screen;
                };
                row("F3", OverlayContent::STEP_KEYBOARD, "KEY_F3");
                row("A", OverlayContent::STEP_KEYBOARD, "KEY_A");
                row("mouse", OverlayContent::STEP_MOUSE, "BTN_LEFT");
                row("please wait", OverlayContent::STEP_MOUSE_BUSY, "");
            }
        }
    }

    void partsAreThePixelsOfTheWholePicture()
    {
        QFETCH(QString, language);
        QFETCH(int, step);
        QFETCH(QString, key);
        QFETCH(QSize, screen);
        const std::optional<OverlayPicture> picture = OverlayComposer::compose(
            contentOf(languages.value(language), static_cast<OverlayContent::Step>(step), key, 4),
            screen);
        QVERIFY(picture);
        QVERIFY(!picture->texts.empty());
        const QImage whole = OverlayComposer::renderWhole(*picture);
        const QImage& background = picture->background->image;
        const std::vector<QRect> areas = OverlayTextLayout::areasOf(picture->texts);
        QRegion texts;
        for (const QRect& area : areas) {
            texts += area;
        }
        int inked = 0;
        for (int y = 0; y < screen.height(); ++y) {
            for (int x = 0; x < screen.width(); ++x) {
                if (whole.pixel(x, y) == background.pixel(x, y)) {
                    continue;
                }
                ++inked;
                if (!texts.contains(QPoint(x, y))) {
                    QFAIL(qPrintable(QStringLiteral("pixel %1,%2 is drawn outside the texts' "
                                                    "bounds")
                                         .arg(x)
                                         .arg(y)));
                }
            }
        }
        QVERIFY(inked > 0);
        for (const QRect& area : areas) {
            QVERIFY2(OverlayComposer::render(*picture, area) == whole.copy(area),
                     qPrintable(describe(area)));
        }
        // A rectangle that cuts through texts, at odd places.
        const QRect cut(screen.width() / 3 + 1, screen.height() / 3 + 3, screen.width() / 3 + 7,
                        screen.height() / 5 + 1);
        QVERIFY2(OverlayComposer::render(*picture, cut) == whole.copy(cut),
                 qPrintable(describe(cut)));
    }

    // A count change touches only the count's lines: the old picture with the
    // changed rectangles put over it is the new picture.
    void aCountChangeRedrawsOnlyTheCounts_data()
    {
        QTest::addColumn<int>("step");
        QTest::addColumn<QSize>("screen");
        QTest::newRow("keyboard 1080p") << int(OverlayContent::STEP_KEYBOARD) << QSize(1920, 1080);
        QTest::newRow("keyboard 4K") << int(OverlayContent::STEP_KEYBOARD) << QSize(3840, 2160);
        QTest::newRow("mouse 1080p") << int(OverlayContent::STEP_MOUSE) << QSize(1920, 1080);
    }

    void aCountChangeRedrawsOnlyTheCounts()
    {
        QFETCH(int, step);
        QFETCH(QSize, screen);
        const TranslationLanguage* english = languages.value(QStringLiteral("en"));
        const auto keyOf = [step] {
            return step == OverlayContent::STEP_KEYBOARD ? QStringLiteral("KEY_F3")
                                                         : QStringLiteral("BTN_LEFT");
        };
        const auto before = OverlayComposer::compose(
            contentOf(english, static_cast<OverlayContent::Step>(step), keyOf(), 4), screen);
        const auto after = OverlayComposer::compose(
            contentOf(english, static_cast<OverlayContent::Step>(step), keyOf(), 15), screen);
        QVERIFY(before && after);
        QCOMPARE(before->background.get(), after->background.get());
        const std::vector<QRect> changed =
            OverlayTextLayout::changedAreas(before->texts, after->texts);
        QVERIFY(!changed.empty());
        // Only the lines of the available count differ.
        const QString availableId = step == OverlayContent::STEP_KEYBOARD
                                        ? QStringLiteral("keyboards-available")
                                        : QStringLiteral("mice-available");
        QRegion countLines;
        for (const TranslationText& line : english->linesOf(availableId, 4)) {
            countLines += OverlayTextLayout::fromTranslation(line, after->background->placement,
                                                             after->background->image)
                              .bounds;
        }
        for (const TranslationText& line : english->linesOf(availableId, 15)) {
            countLines += OverlayTextLayout::fromTranslation(line, after->background->placement,
                                                             after->background->image)
                              .bounds;
        }
        qint64 pixels = 0;
        for (const QRect& area : changed) {
            QVERIFY2(countLines.boundingRect().contains(area), qPrintable(describe(area)));
            pixels += qint64(area.width()) * area.height();
        }
        qInfo("%lld of %lld pixels put for a count change", pixels,
              qint64(screen.width()) * screen.height());
        QImage patched = OverlayComposer::renderWhole(*before);
        {
            QPainter painter(&patched);
            painter.setCompositionMode(QPainter::CompositionMode_Source);
            for (const QRect& area : changed) {
                painter.drawImage(area.topLeft(), OverlayComposer::render(*after, area));
            }
        }
        // Qt draws large glyphs (4K) a few levels differently depending on
        // what it drew before, so two drawings of an unchanged line may
        // differ at their edges by that much; anything more is a line that
        // should have been drawn anew.
        const QImage whole = OverlayComposer::renderWhole(*after);
        int largest = 0;
        for (int y = 0; y < screen.height(); ++y) {
            const auto* left = reinterpret_cast<const QRgb*>(patched.constScanLine(y));
            const auto* right = reinterpret_cast<const QRgb*>(whole.constScanLine(y));
            for (int x = 0; x < screen.width(); ++x) {
                largest = std::max({largest, std::abs(qRed(left[x]) - qRed(right[x])),
                                    std::abs(qGreen(left[x]) - qGreen(right[x])),
                                    std::abs(qBlue(left[x]) - qBlue(right[x]))});
            }
        }
        qInfo("largest difference to the whole new picture: %d levels", largest);
        QVERIFY2(largest <= textEdgeLevels, qPrintable(QString::number(largest)));
        // The same content again changes nothing.
        QVERIFY(OverlayTextLayout::changedAreas(after->texts, after->texts).empty());
    }

    // A translated line keeps its point size; the placement moves it and sets
    // the resolution that the font is drawn at.
    void translatedLinesAreBlackDejaVuSans()
    {
        const TranslationText line(30, 60, 80, QStringLiteral("H"));
        QImage device(10, 10, QImage::Format_ARGB32_Premultiplied);
        const ArtworkPlacement placement = ArtworkPlacement::fit(artwork, QSize(1920, 1080));
        const OverlayText text = OverlayTextLayout::fromTranslation(line, placement, device);
        QCOMPARE(text.font.family(), QStringLiteral("DejaVu Sans"));
        QCOMPARE(text.font.pointSize(), 30);
        QCOMPARE(text.colour, QColor(Qt::black));
        QCOMPARE(text.position,
                 QPoint(240 + static_cast<int>(60 * 1.40625), static_cast<int>(80 * 1.40625)));
        QCOMPARE(text.text, QStringLiteral("H"));
    }

private:
    QHash<QString, TranslationLanguage*> languages;
};

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    OverlayCompositionTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_overlaycomposition.moc"
