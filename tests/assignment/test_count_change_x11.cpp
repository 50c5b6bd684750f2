// A change of the counts on a 3840x2160 screen puts only the counts' part of
// the picture: the station's X connection goes through a proxy display
// (support/XRequestCounter) that counts the PutImage requests, and once the
// screen shows the new picture, the requests sent for it must carry at most
// 1 MB, all of it inside the part of the screen where the counts changed.
//
// The background is blue with a red bottom quarter; the counts' strings are
// the bare numbers, so that the pixels that change are the counts' own.
#include "ComposedPicture.h"
#include "OverlayTestBed.h"
#include "XDisplayProbe.h"
#include "XRequestCounter.h"
#include "XvfbServer.h"

#include "overlay/OverlayContent.h"

#include <QPainter>
#include <QtTest>

namespace {

using ComposedPicture::compareScreens;
using ComposedPicture::composedPicture;
using ComposedPicture::showsPicture;
using ComposedPicture::visibleOnScreen;
using ComposedPicture::visiblePart;

const QSize screenSize(3840, 2160);
constexpr int stationId = 3;
// The most the requests of a count change may carry: the whole picture is 32 MB.
constexpr quint64 countChangeBytes = 1048576;
// Around the pixels that changed: a count's text box reaches a little past its glyphs.
constexpr int margin = 16;
constexpr int pictureTimeoutMs = 30000;

const QByteArray translations = R"(<?xml version="1.0" encoding="UTF-8"?>
<translations>
  <language id="en">
    <string id="station-num"><text font_size="20" pos_x="40" pos_y="60" value="Station %1"/></string>
    <string id="station-name"><text font_size="20" pos_x="40" pos_y="100" value="%1"/></string>
    <string id="station-location"><text font_size="20" pos_x="40" pos_y="140" value="%1"/></string>
    <string id="configure-keyboard"><text font_size="22" pos_x="40" pos_y="200" value="Press"/></string>
    <string id="configure-keyboard-key"><text font_size="20" pos_x="40" pos_y="240" value="Key %1"/></string>
    <string id="keyboards-available"><text font_size="20" pos_x="40" pos_y="480" value="%1"/></string>
    <string id="keyboards-assigned"><text font_size="20" pos_x="40" pos_y="520" value="%1"/></string>
  </language>
</translations>
)";

QImage keyboardPicture()
{
    QImage picture(1024, 768, QImage::Format_RGB32);
    picture.fill(qRgb(0, 0, 255));
    QPainter(&picture).fillRect(0, 576, 1024, 192, QColor(255, 0, 0));
    return picture;
}

QStringList platform(int assigned, int unassigned)
{
    return {QStringLiteral("--assigned-keyboards"),
            QString::number(assigned),
            QStringLiteral("--unassigned-keyboards"),
            QString::number(unassigned),
            QStringLiteral("--tag"),
            QStringLiteral("name=Front Desk"),
            QStringLiteral("--tag"),
            QStringLiteral("location=Room 12"),
            QStringLiteral("--locale"),
            QStringLiteral("*=en_US.UTF-8")};
}

// The bounding box of the pixels in which the two pictures differ; null when none does.
QRect changedArea(const QImage& before, const QImage& after)
{
    QRect changed;
    for (int y = 0; y < before.height(); ++y) {
        const auto* a = reinterpret_cast<const QRgb*>(before.constScanLine(y));
        const auto* b = reinterpret_cast<const QRgb*>(after.constScanLine(y));
        for (int x = 0; x < before.width(); ++x) {
            if (a[x] != b[x]) {
                changed |= QRect(x, y, 1, 1);
            }
        }
    }
    return changed;
}

} // namespace

class CountChangeX11Test : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(OverlayTestBed::writeDataFile("translations/selvane.xml", translations));
        QVERIFY(OverlayTestBed::writePicture("configure-keyboard.png", keyboardPicture()));
        bed = std::make_unique<OverlayTestBed>(platform(2, 5));
        QVERIFY(bed->isReady());
        QVERIFY(server.start());
        proxy = std::make_unique<XRequestCounter>(server.getDisplayNumber());
        QVERIFY(proxy->start());
        probe = std::make_unique<XDisplayProbe>(server.getDisplayName());
        QVERIFY(probe->isConnected());
    }

    void cleanupTestCase()
    {
        probe.reset();
        proxy.reset();
        bed.reset();
    }

    void countChangePutsOnlyTheCounts()
    {
        auto display = bed->create(proxy->number(), stationId);
        QVERIFY(display);
        display->openDisplay();
        display->configureKeyboard();
        QImage before;
        QVERIFY2(updateUntilShown(*display, content(2, 5), before),
                 qPrintable(difference(before, content(2, 5))));
        QVERIFY(proxy->putImageCount() > 0);

        proxy->reset();
        QVERIFY(bed->restartSimulator(platform(7, 9)));
        display->recreateImage();
        QImage after;
        QVERIFY2(updateUntilShown(*display, content(7, 9), after),
                 qPrintable(difference(after, content(7, 9))));

        const QList<XRequestCounter::PutImage> puts = proxy->putImages();
        const quint64 bytes = proxy->putImageBytes();
        const QRect changed = changedArea(before, after);
        QVERIFY(!changed.isNull());
        const QRect counts = changed.adjusted(-margin, -margin, margin, margin);
        qInfo("count change: %lld PutImage requests, %llu bytes; the counts changed in "
              "%d,%d %dx%d",
              static_cast<long long>(puts.size()), static_cast<unsigned long long>(bytes),
              changed.x(), changed.y(), changed.width(), changed.height());
        QVERIFY(!puts.isEmpty());
        QVERIFY2(bytes <= countChangeBytes,
                 qPrintable(QStringLiteral("the count change put %1 bytes in %2 requests")
                                .arg(bytes)
                                .arg(puts.size())));
        for (const XRequestCounter::PutImage& put : puts) {
            const QRect rectangle(put.dstX, put.dstY, put.width, put.height);
            QVERIFY2(counts.contains(rectangle),
                     qPrintable(QStringLiteral("a PutImage of %1x%2 at %3,%4 outside the counts' "
                                               "%5x%6 at %7,%8")
                                    .arg(put.width)
                                    .arg(put.height)
                                    .arg(put.dstX)
                                    .arg(put.dstY)
                                    .arg(counts.width())
                                    .arg(counts.height())
                                    .arg(counts.x())
                                    .arg(counts.y())));
        }
        display.reset();
    }

private:
    OverlayContent content(int assigned, int available) const
    {
        OverlayContent expected;
        expected.stationId = stationId;
        expected.language = bed->getCentral().getLanguage(QStringLiteral("en"));
        expected.assignmentKey = ComposedPicture::assignmentKeyOf(stationId);
        expected.stationName = QStringLiteral("Front Desk");
        expected.stationLocation = QStringLiteral("Room 12");
        expected.assigned = assigned;
        expected.available = available;
        return expected;
    }

    // Runs update() until the screen shows the picture composed for
    // `expected`; `shot` is the screen's last picture.
    bool updateUntilShown(DisplayConfiguration& display, const OverlayContent& expected,
                          QImage& shot)
    {
        const QImage picture = composedPicture(expected, screenSize).copy(visiblePart(screenSize));
        return DaemonRunner::waitUntil(
            [&] {
                display.update();
                shot = probe->screenshot(visibleOnScreen(screenSize));
                return showsPicture(shot, picture);
            },
            pictureTimeoutMs);
    }

    QString difference(const QImage& shot, const OverlayContent& expected) const
    {
        const ComposedPicture::ScreenDifference found = compareScreens(
            shot, composedPicture(expected, screenSize).copy(visiblePart(screenSize)));
        return QStringLiteral("the screen differs from the picture in %1 pixels, by up to %2")
            .arg(found.pixels)
            .arg(found.maxLevels);
    }

    std::unique_ptr<OverlayTestBed> bed;
    XvfbServer server{QStringLiteral("3840x2160x24")};
    std::unique_ptr<XRequestCounter> proxy;
    std::unique_ptr<XDisplayProbe> probe;
};

SELVANE_OVERLAY_TEST_MAIN(CountChangeX11Test, true)

#include "test_count_change_x11.moc"
