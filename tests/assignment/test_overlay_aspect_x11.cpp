// The shipped keyboard picture on wide screens keeps its aspect: the 1024x768
// artwork, its texts and key labels are scaled by one factor
// s = min(W / 1024, H / 768) and centred, and the margins beside it repeat
// the artwork's outermost columns. On 1920x1080 (s = 1.40625) the artwork is
// 1440x1080 at x 240, on 1920x1200 (s = 1.5625) 1600x1200 at x 160; neither
// has margins above or below the artwork.
//
// Checked against what the servers show: the artwork area of the wide screen
// is, pixel for pixel, what a screen of the artwork's own size shows (every
// text inside the picture, at its 4:3 place); each margin column equals the
// artwork's outermost column on its side; and the circle behind the monitor
// pictogram on the station card is as wide as it is high. The daemon's data
// directory is the built one. Screens that differ are saved as PNG files
// (ScreenPicture::saveForInspection) whose paths the failures name.
#include "OverlayTestBed.h"
#include "ScreenPicture.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include <QtTest>

#include <map>

namespace {

// The circle behind the monitor pictogram (data/images/src/frame.svg): centre
// (100, 104), radius 46, filled with #e3ecf9 on the white station card.
constexpr QRgb circleColour = qRgb(0xe3, 0xec, 0xf9);
// Close enough to count as the circle's fill. The texts' grey edges and the
// backdrop's gradient lie further off; the edges of the blue stripe and of
// the blue pictogram, blended with white, do not, but they are thin.
constexpr int circleTolerance = 4;
// The fill is found where a square of this side is all of its colour, which
// no blended edge is; the square's half side is added back around.
constexpr int fillSquare = 5;
// The band of the picture that holds the station card, in its own pixels.
constexpr int cardBandHeight = 190;
// Width and height of a round circle differ by at most this many pixels.
constexpr int roundnessTolerance = 2;

const QStringList screenSizes{"1920x1080", "1440x1080", "1920x1200", "1600x1200"};
constexpr int stationWithF5 = 4;

QSize sizeOf(const QString& screen)
{
    const QStringList sides = screen.split('x');
    return QSize(sides.at(0).toInt(), sides.at(1).toInt());
}

QString describe(QRgb pixel)
{
    return QStringLiteral("#%1").arg(pixel & 0xffffff, 6, 16, QLatin1Char('0'));
}

bool isCircleColour(QRgb pixel)
{
    return qAbs(qRed(pixel) - qRed(circleColour)) <= circleTolerance &&
           qAbs(qGreen(pixel) - qGreen(circleColour)) <= circleTolerance &&
           qAbs(qBlue(pixel) - qBlue(circleColour)) <= circleTolerance;
}

// The bounding box of the circle's fill within the area.
QRect circleBounds(const QImage& screen, const QRect& area)
{
    const int half = fillSquare / 2;
    QRect centres;
    for (int y = area.top() + half; y <= area.bottom() - half; ++y) {
        for (int x = area.left() + half; x <= area.right() - half; ++x) {
            bool filled = true;
            for (int dy = -half; filled && dy <= half; ++dy) {
                for (int dx = -half; filled && dx <= half; ++dx) {
                    filled = isCircleColour(screen.pixel(x + dx, y + dy));
                }
            }
            if (filled) {
                centres |= QRect(x, y, 1, 1);
            }
        }
    }
    return centres.isNull() ? centres : centres.adjusted(-half, -half, half, half);
}

// The band of the screen that holds the station card, clear of the window's
// border on the first row and column.
QRect cardBand(const QImage& screen, double scale)
{
    return QRect(1, 1, screen.width() - 1, qRound(cardBandHeight * scale));
}

} // namespace

class OverlayAspectTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        DisplayConfiguration::initTranslations();
        for (const QString& size : screenSizes) {
            auto server = std::make_unique<XvfbServer>(size + "x24");
            QVERIFY2(server->start(), qPrintable(server->startError()));
            probes[size] = std::make_unique<XDisplayProbe>(server->getDisplayName());
            QVERIFY(probes[size]->isConnected());
            servers[size] = std::move(server);
        }
        bed = std::make_unique<OverlayTestBed>(QStringList{
            "--assigned-keyboards", "2", "--unassigned-keyboards", "5", "--tag", "name=Front Desk",
            "--tag", "location=Room 12", "--locale", "*=en_US.UTF-8"});
        QVERIFY(bed->isReady());
    }

    void cleanupTestCase()
    {
        bed.reset();
        probes.clear();
        servers.clear();
    }

    void artworkAreaIsThePictureAtTheArtworksSize_data() { wideScreens(); }
    void artworkAreaIsThePictureAtTheArtworksSize()
    {
        QFETCH(QString, wide);
        QFETCH(QString, artwork);
        QFETCH(int, offset);
        const QImage wideScreen = keyboardScreen(wide);
        const QImage artworkScreen = keyboardScreen(artwork);
        QVERIFY(!wideScreen.isNull() && !artworkScreen.isNull());
        QCOMPARE(artworkScreen.size(), sizeOf(artwork));

        // The window's border takes the first row and column of either screen;
        // the picture's last row and column lie beyond the artwork's screen.
        const QRect fromArtwork(1, 1, artworkScreen.width() - 1, artworkScreen.height() - 1);
        const QRect inWide = fromArtwork.translated(offset, 0);
        int differences = 0;
        QPoint first;
        for (int y = fromArtwork.top(); y <= fromArtwork.bottom(); ++y) {
            for (int x = fromArtwork.left(); x <= fromArtwork.right(); ++x) {
                if (artworkScreen.pixel(x, y) != wideScreen.pixel(x + offset, y)) {
                    first = differences == 0 ? QPoint(x, y) : first;
                    ++differences;
                }
            }
        }
        if (differences != 0) {
            QFAIL(qPrintable(
                QStringLiteral("%1 of the %2 pixels of the artwork area (%3,%4 %5x%6) differ "
                               "from the %7 screen; the first at %8,%9 of the artwork: %10 "
                               "instead of %11; saved as %12 and %13")
                    .arg(differences)
                    .arg(fromArtwork.width() * fromArtwork.height())
                    .arg(inWide.x())
                    .arg(inWide.y())
                    .arg(inWide.width())
                    .arg(inWide.height())
                    .arg(artwork)
                    .arg(first.x())
                    .arg(first.y())
                    .arg(describe(wideScreen.pixel(first + QPoint(offset, 0))),
                         describe(artworkScreen.pixel(first)),
                         ScreenPicture::saveForInspection(wideScreen, "keyboard-" + wide),
                         ScreenPicture::saveForInspection(artworkScreen, "keyboard-" + artwork))));
        }
    }

    void marginsRepeatTheArtworksOutermostColumns_data() { wideScreens(); }
    void marginsRepeatTheArtworksOutermostColumns()
    {
        QFETCH(QString, wide);
        QFETCH(QString, artwork);
        QFETCH(int, offset);
        const QImage screen = keyboardScreen(wide);
        QVERIFY(!screen.isNull());
        // Picture column c is screen column c + 1, past the window's border.
        const int leftColumn = offset + 1;
        const int rightColumn = offset + sizeOf(artwork).width();
        int differences = 0;
        QString first;
        for (int y = 1; y < screen.height(); ++y) {
            for (int x = 1; x < screen.width(); ++x) {
                const int outermost = x < leftColumn    ? leftColumn
                                      : x > rightColumn ? rightColumn
                                                        : x;
                if (screen.pixel(x, y) != screen.pixel(outermost, y)) {
                    if (differences == 0) {
                        first = QStringLiteral("%1,%2 is %3, column %4 %5")
                                    .arg(x)
                                    .arg(y)
                                    .arg(describe(screen.pixel(x, y)))
                                    .arg(outermost)
                                    .arg(describe(screen.pixel(outermost, y)));
                    }
                    ++differences;
                }
            }
        }
        if (differences != 0) {
            QFAIL(
                qPrintable(QStringLiteral("%1 margin pixels differ from the artwork's outermost "
                                          "column on their side; the first: %2; saved as %3")
                               .arg(differences)
                               .arg(first)
                               .arg(ScreenPicture::saveForInspection(screen, "keyboard-" + wide))));
        }
    }

    void circleOfTheArtworkIsRound_data() { wideScreens(); }
    void circleOfTheArtworkIsRound()
    {
        QFETCH(QString, wide);
        QFETCH(double, scale);
        QFETCH(int, offset);
        const QImage screen = keyboardScreen(wide);
        QVERIFY(!screen.isNull());
        const QRect circle = circleBounds(screen, cardBand(screen, scale));
        qInfo("%s: the monitor's circle spans %d x %d pixels at %d,%d", qPrintable(wide),
              circle.width(), circle.height(), circle.x(), circle.y());
        // Found at all: most of its 92 x 92 scaled pixels are its fill.
        QVERIFY2(circle.height() > 80 * scale, "no circle on the station card");
        if (qAbs(circle.width() - circle.height()) > roundnessTolerance) {
            QFAIL(
                qPrintable(QStringLiteral("the circle is %1 x %2 pixels; saved as %3")
                               .arg(circle.width())
                               .arg(circle.height())
                               .arg(ScreenPicture::saveForInspection(screen, "keyboard-" + wide))));
        }
        // Where the artwork puts it: centred on (100, 104) of the picture.
        const QPointF centre = QRectF(circle).center();
        QVERIFY(qAbs(centre.x() - (offset + 1 + 100 * scale)) <= roundnessTolerance);
        QVERIFY(qAbs(centre.y() - (1 + 104 * scale)) <= roundnessTolerance);
    }

    void circleMeasureSeesAStretchedPicture()
    {
        // The picture stretched in x and y separately, as a screen of
        // 1920x1080 showed it before the aspect was kept: the same measure
        // must find the circle out of round there.
        const QImage artworkScreen = keyboardScreen(QStringLiteral("1440x1080"));
        QVERIFY(!artworkScreen.isNull());
        const QImage stretched =
            artworkScreen.scaled(1920, 1080, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        const QRect circle = circleBounds(stretched, cardBand(stretched, 1.40625));
        qInfo("stretched to 1920x1080: the monitor's circle spans %d x %d pixels", circle.width(),
              circle.height());
        QVERIFY(circle.height() > 80 * 1.40625);
        QVERIFY(circle.width() - circle.height() > roundnessTolerance);
    }

private:
    void wideScreens()
    {
        QTest::addColumn<QString>("wide");
        QTest::addColumn<QString>("artwork");
        QTest::addColumn<double>("scale");
        QTest::addColumn<int>("offset");
        QTest::newRow("1920x1080") << "1920x1080"
                                   << "1440x1080" << 1.40625 << 240;
        QTest::newRow("1920x1200") << "1920x1200"
                                   << "1600x1200" << 1.5625 << 160;
    }

    // The keyboard step of a station with F5, in English, as the screen
    // shows it; read once per screen.
    QImage keyboardScreen(const QString& size)
    {
        if (shown.count(size) != 0) {
            return shown.at(size);
        }
        const XDisplayProbe& probe = *probes.at(size);
        auto display = bed->create(servers.at(size)->getDisplayNumber(), stationWithF5);
        display->openDisplay();
        display->configureKeyboard();
        const ScreenPicture::Taken taken = OverlayTestBed::waitForPicture(*display, probe);
        display.reset();
        if (!taken.accepted) {
            qWarning("%s: the keyboard step was not shown", qPrintable(size));
            return QImage();
        }
        shown[size] = taken.screen;
        return taken.screen;
    }

    std::map<QString, std::unique_ptr<XvfbServer>> servers;
    std::map<QString, std::unique_ptr<XDisplayProbe>> probes;
    std::map<QString, QImage> shown;
    std::unique_ptr<OverlayTestBed> bed;
};

SELVANE_OVERLAY_TEST_MAIN(OverlayAspectTest, true)

#include "test_overlay_aspect_x11.moc"
