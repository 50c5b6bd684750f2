// The central object and its two handlers: the assignment handler is made
// before the assigned-device handler, deleted before it, and both are driven
// by the tick and reached by the queued commands.
#include "DaemonRunner.h"
#include "LogCapture.h"
#include "TestFiles.h"
#include "UmockdevTestbed.h"

#include "assignment/AssignmentHandler.h"
#include "daemon/Selvane.h"
#include "input/InputKeyCode.h"
#include "sequences/AssignedDeviceHandler.h"

#include <QGuiApplication>
#include <QtTest>

#include <memory>

namespace {

int indexOf(const QStringList& messages, const QString& message)
{
    return static_cast<int>(messages.indexOf(message));
}

} // namespace

class SelvaneHandlersTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        InputKeyCode::buildTable();
        config = dir.filePath("keys.conf");
        QVERIFY(writeFile(config, "KEY_LEFTCTRL:KEY_F1:true\n"));
    }
    void cleanupTestCase() { InputKeyCode::cleanupTable(); }

    void assignmentHandlerComesFirstAndGoesFirst()
    {
        UmockdevTestbed testbed;
        const QString assigned = testbed.addDevice(DeviceDescription::keyboard());
        const QString unassigned = testbed.addDevice(DeviceDescription::keyboard());
        LogCapture log;
        auto selvane = std::make_unique<Selvane>(config);
        QVERIFY(selvane->getAssignmentHandler());
        QVERIFY(selvane->getAssignedDeviceHandler());

        // Without a version file the assignment handler says so when it is made.
        const QStringList started = log.messages();
        const int assignmentHandlerMade = indexOf(started, "Could not determine Qel version");
        const int assignedHandlerMade = indexOf(started, "Parsing config file " + config);
        QVERIFY2(assignmentHandlerMade >= 0 && assignedHandlerMade >= 0,
                 qPrintable(started.join('\n')));
        QVERIFY(assignmentHandlerMade < assignedHandlerMade);

        selvane->getAssignedDeviceHandler()->addAssignedDevice(assigned, 3);
        QVERIFY(selvane->getAssignmentHandler()->addUnassignedDevice(unassigned));
        log.clear();
        selvane.reset();
        const QStringList ended = log.messages();
        const int unassignedClosed = indexOf(ended, "Closed device " + unassigned);
        const int assignedClosed = indexOf(ended, "Closed device " + assigned);
        QVERIFY2(unassignedClosed >= 0 && assignedClosed >= 0, qPrintable(ended.join('\n')));
        QVERIFY(unassignedClosed < assignedClosed);
    }

    void assignedDevicesChangedIsConnectedToTheAssignmentHandler()
    {
        Selvane selvane(config);
        // disconnect() finds exactly the connection the central object made.
        QVERIFY(QObject::disconnect(
            selvane.getAssignedDeviceHandler(), &AssignedDeviceHandler::assignedDevicesChanged,
            selvane.getAssignmentHandler(), &AssignmentHandler::assignedDevicesChanged));
    }

private:
    QTemporaryDir dir;
    QString config;
};

// A private bus is this test's session bus; emulated devices need umockdev's
// preload library. Without either the test is skipped.
int main(int argc, char* argv[])
{
    UmockdevTestbed::requirePreload(argc, argv);
    return runOnPrivateBus<QGuiApplication, SelvaneHandlersTest>(argc, argv);
}

#include "test_selvane_handlers.moc"
