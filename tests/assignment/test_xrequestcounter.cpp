// The proxy display that counts PutImage requests (support/XRequestCounter)
// between clients and a real Xvfb: the requests of several connections, one
// small and one in BIG-REQUESTS form, each with its drawable, size, place and
// bytes; everything passed on both ways (the pictures arrive, and read back
// through the proxy); reset(); connections that end. The splitting of a
// client's bytes into requests, on its own: big-endian, fed byte by byte.
#include "XDisplayProbe.h"
#include "XRequestCounter.h"
#include "XvfbServer.h"

#include <QtTest>

#include <memory>
#include <vector>

namespace {

constexpr QRgb red = qRgb(255, 0, 0);
constexpr QRgb green = qRgb(0, 255, 0);
// PutImage's header: opcode, format, length, drawable, gc, width, height,
// dst-x, dst-y, left-pad, depth, 2 unused.
constexpr quint64 headerBytes = 24;
// The 32-bit length of a BIG-REQUESTS request.
constexpr quint64 bigLengthBytes = 4;

// Puts a picture of one colour on the root window, in the server's 32-bit
// pixels, and waits until the server has it.
void putColour(const XDisplayProbe& probe, const QRect& area, QRgb colour)
{
    xcb_connection_t* c = probe.getConnection();
    const xcb_gcontext_t gc = xcb_generate_id(c);
    xcb_create_gc(c, gc, probe.getRoot(), 0, nullptr);
    const std::vector<uint32_t> pixels(static_cast<size_t>(area.width()) * area.height(),
                                       colour & 0xffffff);
    xcb_put_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, probe.getRoot(), gc,
                  static_cast<uint16_t>(area.width()), static_cast<uint16_t>(area.height()),
                  static_cast<int16_t>(area.x()), static_cast<int16_t>(area.y()), 0, 24,
                  static_cast<uint32_t>(pixels.size() * 4),
                  reinterpret_cast<const uint8_t*>(pixels.data()));
    xcb_free_gc(c, gc);
    probe.sync();
}

} // namespace

class XRequestCounterTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (!XvfbServer::isInstalled()) {
            QSKIP("Xvfb is not installed");
        }
        QVERIFY(server.start());
        proxy = std::make_unique<XRequestCounter>(server.getDisplayNumber());
        QVERIFY(proxy->start());
        QVERIFY(proxy->number() != server.getDisplayNumber());
    }

    void cleanupTestCase() { proxy.reset(); }

    void streamSplitsABigEndianClientFedByteByByte()
    {
        struct Request
        {
            QByteArray head;
            quint64 length;
            bool bigRequest;
            bool littleEndian;
        };
        QList<Request> requests;
        XRequestStream stream(
            [&](const QByteArray& head, uint64_t length, bool bigRequest, bool littleEndian) {
                requests.append({head, length, bigRequest, littleEndian});
            });
        // The setup: byte order, pad, version 11.0, a name of 3 bytes and data
        // of 5, pad; then the name and the data, each padded to 4 bytes.
        QByteArray bytes = QByteArray::fromHex("420000 0b0000 0003 0005 0000");
        bytes += QByteArray("abc\0defgh\0\0\0", 12);
        // PutImage of 6 units; one of 9 units in BIG-REQUESTS form; GetInputFocus.
        const QByteArray put =
            QByteArray::fromHex("48020006 01020304 00000001 0010 0020 fffe 0005 0018 0000");
        const QByteArray bigPut =
            QByteArray::fromHex(
                "48000000 00000009 01020304 00000001 0003 0004 0007 0009 0018 0000") +
            QByteArray(8, 'x');
        const QByteArray focus = QByteArray::fromHex("2b000001");
        bytes += put + bigPut + focus;
        for (const char byte : bytes) {
            QVERIFY(stream.feed(&byte, 1));
        }
        QCOMPARE(requests.size(), 3);
        QCOMPARE(requests[0].head, put);
        QCOMPARE(requests[0].length, quint64(24));
        QVERIFY(!requests[0].bigRequest);
        QVERIFY(!requests[0].littleEndian);
        QCOMPARE(requests[1].head, bigPut.left(XRequestStream::headBytes));
        QCOMPARE(requests[1].length, quint64(36));
        QVERIFY(requests[1].bigRequest);
        QCOMPARE(requests[2].head, focus);
        QCOMPARE(requests[2].length, quint64(4));

        XRequestStream unknown([](const QByteArray&, uint64_t, bool, bool) {});
        const QByteArray wrongOrder = QByteArray::fromHex("580000 0b0000 0000 0000 0000");
        QVERIFY(!unknown.feed(wrongOrder.constData(), static_cast<size_t>(wrongOrder.size())));
    }

    void putImagesOfSeveralConnectionsAreCounted()
    {
        auto small = std::make_unique<XDisplayProbe>(proxy->displayName());
        auto large = std::make_unique<XDisplayProbe>(proxy->displayName());
        QVERIFY(small->isConnected());
        QVERIFY(large->isConnected());
        QCOMPARE(proxy->connections(), 2);
        QCOMPARE(proxy->putImageCount(), 0);

        putColour(*small, QRect(5, 7, 10, 20), green);
        // 1.2 MB: more than a 16-bit length can say.
        putColour(*large, QRect(0, 400, 1024, 300), red);
        QCOMPARE(proxy->putImageCount(), 2);
        const QList<XRequestCounter::PutImage> puts = proxy->putImages();
        QCOMPARE(puts.size(), 2);
        QCOMPARE(puts[0].drawable, small->getRoot());
        QCOMPARE(QRect(puts[0].dstX, puts[0].dstY, puts[0].width, puts[0].height),
                 QRect(5, 7, 10, 20));
        QCOMPARE(puts[0].bytes, headerBytes + 10 * 20 * 4);
        QCOMPARE(puts[1].drawable, large->getRoot());
        QCOMPARE(QRect(puts[1].dstX, puts[1].dstY, puts[1].width, puts[1].height),
                 QRect(0, 400, 1024, 300));
        QCOMPARE(puts[1].bytes, headerBytes + bigLengthBytes + 1024 * 300 * 4);
        QCOMPARE(proxy->putImageBytes(), puts[0].bytes + puts[1].bytes);

        // Both pictures arrived whole; the large one is read back through the proxy too.
        const XDisplayProbe direct(server.getDisplayName());
        QCOMPARE(direct.screenshot(QRect(14, 26, 1, 1)).pixel(0, 0), green);
        const QImage back = large->screenshot(QRect(0, 400, 1024, 300));
        QCOMPARE(back.size(), QSize(1024, 300));
        QCOMPARE(back.pixel(0, 0), red);
        QCOMPARE(back.pixel(1023, 299), red);

        proxy->reset();
        QCOMPARE(proxy->putImageCount(), 0);
        QCOMPARE(proxy->putImageBytes(), quint64(0));
        QVERIFY(proxy->putImages().isEmpty());
        putColour(*small, QRect(-2, -3, 4, 4), red);
        QCOMPARE(proxy->putImages().value(0).dstX, -2);
        QCOMPARE(proxy->putImages().value(0).dstY, -3);

        large.reset();
        QVERIFY(QTest::qWaitFor([&] { return proxy->connections() == 1; }));
        small.reset();
        QVERIFY(QTest::qWaitFor([&] { return proxy->connections() == 0; }));
    }

private:
    XvfbServer server;
    std::unique_ptr<XRequestCounter> proxy;
};

QTEST_GUILESS_MAIN(XRequestCounterTest)

#include "test_xrequestcounter.moc"
