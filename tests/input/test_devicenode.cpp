// What identifies a device file whatever name it comes under: a character
// device by its number, through any spelling of its path or a symbolic link,
// looked at by name or through an open descriptor; other files by themselves.
#include "input/DeviceNode.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <unistd.h>

class DeviceNodeTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aCharacterDeviceIsOneNodeUnderEveryName()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString link = dir.filePath("null-link");
        QVERIFY(QFile::link("/dev/null", link));
        const std::optional<DeviceNode> null = DeviceNode::ofPath("/dev/null");
        QVERIFY(null);
        for (const QString& name : {QStringLiteral("/dev//null"), QStringLiteral("/dev/./null"),
                                    QStringLiteral("/dev/../dev/null"), link}) {
            QVERIFY2(DeviceNode::ofPath(name) == null, qPrintable(name));
            const int fd = open(QFile::encodeName(name).constData(), O_RDONLY | O_CLOEXEC);
            QVERIFY(fd >= 0);
            const std::optional<DeviceNode> opened = DeviceNode::ofDescriptor(fd);
            close(fd);
            QVERIFY2(opened == null, qPrintable(name));
        }
        QVERIFY(DeviceNode::ofPath("/dev/zero") != null);
    }

    void otherFilesAreTheirOwnNodes()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString first = dir.filePath("first");
        const QString second = dir.filePath("second");
        for (const QString& name : {first, second}) {
            QFile file(name);
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        QVERIFY(QFile::link(first, dir.filePath("link")));
        QVERIFY(DeviceNode::ofPath(first) == DeviceNode::ofPath(dir.filePath("link")));
        QVERIFY(DeviceNode::ofPath(first) != DeviceNode::ofPath(second));
        QVERIFY(!DeviceNode::ofPath(dir.filePath("missing")));
        QVERIFY(!DeviceNode::ofDescriptor(-1));
    }
};

QTEST_GUILESS_MAIN(DeviceNodeTest)
#include "test_devicenode.moc"
