// The check of an X server's setup reply on crafted replies: a plausible one,
// each field made hostile in turn, counts that point past the reply, screens
// at and just over the size bound, and the row sizes of the upload at the
// limits of their arithmetic.
#include "XSetupReply.h"
#include "overlay/ServerSetupCheck.h"

#include <QtTest>

#include <cstring>
#include <limits>

namespace {

using Verdict = ServerSetupCheck::Verdict;
using PixmapFormat = ServerSetupCheck::PixmapFormat;

ServerSetupCheck check(const QByteArray& reply)
{
    return ServerSetupCheck(reinterpret_cast<const uint8_t*>(reply.constData()),
                            static_cast<size_t>(reply.size()));
}

XSetupReply withFormats(const QVector<XSetupReply::Format>& formats)
{
    XSetupReply reply;
    reply.formats = formats;
    return reply;
}

XSetupReply withSize(uint16_t width, uint16_t height)
{
    XSetupReply reply;
    reply.width = width;
    reply.height = height;
    return reply;
}

void setByte(QByteArray& reply, int offset, uint8_t value)
{
    reply[offset] = static_cast<char>(value);
}

// The offset of the first screen's record in a reply built by XSetupReply.
int firstScreenOffset(const XSetupReply& reply)
{
    return 40 + ((reply.vendor.size() + 3) & ~3) + 8 * reply.formats.size();
}

} // namespace

Q_DECLARE_METATYPE(Verdict)

class ServerSetupCheckTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aPlausibleServerIsUsable()
    {
        const XSetupReply reply;
        const QByteArray bytes = reply.bytes();
        const ServerSetupCheck result = check(bytes);
        QCOMPARE(result.getVerdict(), Verdict::USABLE);
        QCOMPARE(result.getWidth(), 1024u);
        QCOMPARE(result.getHeight(), 768u);
        QVERIFY(result.hasRootVisual());
        QVERIFY(result.getFormat());
        QCOMPARE(result.getFormat()->depth, 24);
        QCOMPARE(result.getFormat()->bitsPerPixel, 32);
        QCOMPARE(result.getFormat()->scanlinePad, 32);
        QCOMPARE(result.getScreenOffset(), static_cast<size_t>(firstScreenOffset(reply)));
        uint32_t root = 0;
        memcpy(&root, bytes.constData() + result.getScreenOffset(), sizeof(root));
        QCOMPARE(root, XSetupReply::rootWindow);
    }

    void aSixteenBitScreenTakesSixteenBitPixels()
    {
        XSetupReply reply = withFormats({{1, 1, 32}, {16, 16, 16}, {24, 32, 32}});
        reply.rootDepth = 16;
        const ServerSetupCheck result = check(reply.bytes());
        QCOMPARE(result.getVerdict(), Verdict::USABLE);
        QCOMPARE(result.getFormat()->depth, 16);
        QCOMPARE(result.getFormat()->bitsPerPixel, 16);
        QCOMPARE(result.getFormat()->scanlinePad, 16);
    }

    void aVendorOfOddLengthIsPadded()
    {
        XSetupReply reply;
        reply.vendor = "abcde";
        QCOMPARE(check(reply.bytes()).getVerdict(), Verdict::USABLE);
    }

    void bytesAfterTheAnnouncedLengthAreNotRead()
    {
        QCOMPARE(check(XSetupReply().bytes() + QByteArray(64, '\xff')).getVerdict(),
                 Verdict::USABLE);
    }

    void aMissingRootVisualLeavesNoFormat()
    {
        XSetupReply reply;
        reply.rootVisualListed = false;
        const ServerSetupCheck result = check(reply.bytes());
        QCOMPARE(result.getVerdict(), Verdict::USABLE);
        QVERIFY(!result.hasRootVisual());
        QVERIFY(!result.getFormat());
    }

    void theFormatIsChecked_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<Verdict>("verdict");
        QTest::addColumn<int>("scanlinePad");
        QTest::newRow("scanline pad 0")
            << withFormats({{24, 32, 0}}).bytes() << Verdict::NO_PIXMAP_FORMAT << 0;
        QTest::newRow("scanline pad 64")
            << withFormats({{24, 32, 64}}).bytes() << Verdict::NO_PIXMAP_FORMAT << 0;
        QTest::newRow("scanline pad 7")
            << withFormats({{24, 32, 7}}).bytes() << Verdict::NO_PIXMAP_FORMAT << 0;
        QTest::newRow("scanline pad 255")
            << withFormats({{24, 32, 255}}).bytes() << Verdict::NO_PIXMAP_FORMAT << 0;
        QTest::newRow("24 bits a pixel at depth 24")
            << withFormats({{24, 24, 32}}).bytes() << Verdict::NO_PIXMAP_FORMAT << 0;
        QTest::newRow("no format of the screen's depth")
            << withFormats({{1, 1, 32}, {8, 8, 32}}).bytes() << Verdict::NO_PIXMAP_FORMAT << 0;
        QTest::newRow("no format at all")
            << withFormats({}).bytes() << Verdict::NO_PIXMAP_FORMAT << 0;
        QTest::newRow("a bad pad, then a good one")
            << withFormats({{24, 32, 0}, {24, 32, 8}}).bytes() << Verdict::USABLE << 8;
        QTest::newRow("scanline pad 16")
            << withFormats({{24, 32, 16}}).bytes() << Verdict::USABLE << 16;
    }

    void theFormatIsChecked()
    {
        QFETCH(QByteArray, reply);
        QFETCH(Verdict, verdict);
        QFETCH(int, scanlinePad);
        const ServerSetupCheck result = check(reply);
        QCOMPARE(result.getVerdict(), verdict);
        if (verdict == Verdict::USABLE) {
            QCOMPARE(result.getFormat()->scanlinePad, scanlinePad);
        } else {
            QVERIFY(!result.getFormat());
        }
    }

    void theScreenSizeIsBounded_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<Verdict>("verdict");
        QTest::newRow("8192x8192") << withSize(8192, 8192).bytes() << Verdict::USABLE;
        QTest::newRow("8193x8192") << withSize(8193, 8192).bytes() << Verdict::SCREEN_TOO_LARGE;
        QTest::newRow("8192x8193") << withSize(8192, 8193).bytes() << Verdict::SCREEN_TOO_LARGE;
        QTest::newRow("65535x65535") << withSize(65535, 65535).bytes() << Verdict::SCREEN_TOO_LARGE;
        XSetupReply hostile = withSize(32767, 16385);
        hostile.formats = {{24, 32, 64}};
        QTest::newRow("32767x16385 at pad 64") << hostile.bytes() << Verdict::SCREEN_TOO_LARGE;
        QTest::newRow("0x768") << withSize(0, 768).bytes() << Verdict::MALFORMED;
        QTest::newRow("1024x0") << withSize(1024, 0).bytes() << Verdict::MALFORMED;
    }

    void theScreenSizeIsBounded()
    {
        QFETCH(QByteArray, reply);
        QFETCH(Verdict, verdict);
        const ServerSetupCheck result = check(reply);
        QCOMPARE(result.getVerdict(), verdict);
        if (verdict == Verdict::SCREEN_TOO_LARGE) {
            // The screen is known, for a RandR change that makes it fit.
            QVERIFY(result.getWidth() > ServerSetupCheck::maximumScreenSide ||
                    result.getHeight() > ServerSetupCheck::maximumScreenSide);
        }
    }

    void aScreenRefusedForItsSizeIsCheckedAtItsNextSize()
    {
        XSetupReply huge = withSize(32767, 16385);
        const QByteArray fine = huge.bytes();
        const ServerSetupCheck result = check(fine);
        QCOMPARE(result.getVerdict(), Verdict::SCREEN_TOO_LARGE);
        QCOMPARE(result.verdictAt(1024, 768), Verdict::USABLE);
        QCOMPARE(result.verdictAt(8192, 8192), Verdict::USABLE);
        QCOMPARE(result.verdictAt(8193, 1), Verdict::SCREEN_TOO_LARGE);
        QVERIFY(result.getFormat());
        // Its format is refused once its size fits.
        huge.formats = {{24, 32, 64}};
        const QByteArray padded = huge.bytes();
        const ServerSetupCheck badFormat = check(padded);
        QCOMPARE(badFormat.getVerdict(), Verdict::SCREEN_TOO_LARGE);
        QCOMPARE(badFormat.verdictAt(1024, 768), Verdict::NO_PIXMAP_FORMAT);
        QVERIFY(!badFormat.getFormat());
        // A malformed setup stays malformed at any size.
        QByteArray lying = fine;
        setByte(lying, XSetupReply::formatCountOffset, 255);
        QCOMPARE(check(lying).verdictAt(1024, 768), Verdict::MALFORMED);
    }

    void aServerWithoutScreens()
    {
        XSetupReply reply;
        reply.screens = 0;
        QCOMPARE(check(reply.bytes()).getVerdict(), Verdict::NO_SCREEN);
    }

    void countsThatPointPastTheReply_data()
    {
        QTest::addColumn<QByteArray>("reply");
        const XSetupReply plain;
        const QByteArray good = plain.bytes();
        const int screen = firstScreenOffset(plain);
        QByteArray lying = good;
        setByte(lying, XSetupReply::formatCountOffset, 255);
        QTest::newRow("255 formats") << lying;
        lying = good;
        setByte(lying, XSetupReply::screenCountOffset, 255);
        QTest::newRow("255 screens") << lying;
        lying = good;
        setByte(lying, XSetupReply::screenCountOffset, 2);
        QTest::newRow("a second screen missing") << lying;
        lying = good;
        setByte(lying, 24, 0xff);
        setByte(lying, 25, 0xff);
        QTest::newRow("a vendor of 65535 bytes") << lying;
        lying = good;
        setByte(lying, screen + 39, 255);
        QTest::newRow("255 depths") << lying;
        lying = good;
        setByte(lying, screen + 40 + 2, 0xff);
        setByte(lying, screen + 40 + 3, 0xff);
        QTest::newRow("65535 visuals") << lying;
        lying = good;
        setByte(lying, screen + 40 + 2, 2);
        QTest::newRow("a second visual missing") << lying;
        lying = good;
        setByte(lying, 6, 0xff);
        setByte(lying, 7, 0xff);
        QTest::newRow("a length beyond the bytes") << lying;
        lying = good;
        setByte(lying, 6, 1);
        setByte(lying, 7, 0);
        QTest::newRow("a length shorter than the fixed part") << lying;
        lying = good;
        setByte(lying, 0, 0);
        QTest::newRow("a failed setup") << lying;
        lying = good;
        setByte(lying, 0, 2);
        QTest::newRow("a setup that asks to authenticate") << lying;
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("the header alone") << good.left(8);
        QTest::newRow("garbage") << QByteArray("\x01\x00\x0b\x00\x00\x00\x02\x00garbage!", 16);
    }

    void countsThatPointPastTheReply()
    {
        QFETCH(QByteArray, reply);
        QCOMPARE(check(reply).getVerdict(), Verdict::MALFORMED);
    }

    void everyTruncationIsMalformed()
    {
        const QByteArray good = XSetupReply().bytes();
        for (int size = 0; size < good.size(); ++size) {
            QVERIFY2(check(good.left(size)).getVerdict() == Verdict::MALFORMED,
                     qPrintable(QString::number(size)));
        }
    }

    void aNullReplyIsMalformed()
    {
        QCOMPARE(ServerSetupCheck(nullptr, 100).getVerdict(), Verdict::MALFORMED);
    }

    void rowSizes()
    {
        QCOMPARE(PixmapFormat({24, 32, 32}).rowBytes(1024), std::optional<size_t>(4096));
        QCOMPARE(PixmapFormat({16, 16, 32}).rowBytes(3), std::optional<size_t>(8));
        QCOMPARE(PixmapFormat({16, 16, 16}).rowBytes(3), std::optional<size_t>(6));
        QCOMPARE(PixmapFormat({24, 24, 8}).rowBytes(3), std::optional<size_t>(9));
        QCOMPARE(PixmapFormat({24, 32, 32}).rowBytes(0), std::optional<size_t>(0));
        QCOMPARE(PixmapFormat({24, 32, 32}).imageBytes(8192, 8192),
                 std::optional<size_t>(size_t{8192} * 8192 * 4));
        // A row of the largest width still fits a 64-bit size.
        const uint32_t widest = std::numeric_limits<uint32_t>::max();
        QCOMPARE(PixmapFormat({24, 32, 32}).rowBytes(widest),
                 std::optional<size_t>(size_t{widest} * 4));
    }

    void unusableFormatsHaveNoRowSize()
    {
        QVERIFY(!PixmapFormat({24, 32, 0}).rowBytes(1024));
        QVERIFY(!PixmapFormat({24, 32, 64}).rowBytes(1024));
        QVERIFY(!PixmapFormat({24, 0, 32}).rowBytes(1024));
        QVERIFY(!PixmapFormat({24, 8, 32}).rowBytes(1024));
        QVERIFY(!PixmapFormat({24, 32, 0}).imageBytes(1024, 768));
    }

    void sizesThatOverflowHaveNone()
    {
        const uint32_t largest = std::numeric_limits<uint32_t>::max();
        QVERIFY(!PixmapFormat({24, 32, 32}).imageBytes(largest, largest));
    }
};

QTEST_APPLESS_MAIN(ServerSetupCheckTest)

#include "test_serversetupcheck.moc"
