#include "SeatVm.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int pollMs = 100;
constexpr char readyMarker[] = "SEATVM READY";

QString runPath(const QTemporaryDir& dir, const QString& name)
{
    return dir.filePath(name);
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A request appears whole: written under another name, then renamed.
bool writeRequest(const QString& path, const QString& script)
{
    const QString partial = path + ".partial";
    QFile file(partial);
    if (!file.open(QIODevice::WriteOnly) || file.write(script.toUtf8()) < 0) {
        return false;
    }
    file.close();
    return QFile::rename(partial, path);
}

QByteArray keyEvent(const QString& device, const QString& qcode, bool down)
{
    return QStringLiteral(R"({"execute": "input-send-event", "arguments": {"device": "%1", )"
                          R"("events": [{"type": "key", "data": {"down": %2, )"
                          R"("key": {"type": "qcode", "data": "%3"}}}]}})")
        .arg(device, down ? "true" : "false", qcode)
        .toUtf8();
}

QByteArray buttonEvent(const QString& device, bool down)
{
    return QStringLiteral(R"({"execute": "input-send-event", "arguments": {"device": "%1", )"
                          R"("events": [{"type": "btn", "data": {"down": %2, )"
                          R"("button": "left"}}]}})")
        .arg(device, down ? "true" : "false")
        .toUtf8();
}

} // namespace

SeatVm::SeatVm() = default;

SeatVm::~SeatVm()
{
    stop();
}

bool SeatVm::boot(const QString& workDir, const QString& buildDir, const QStringList& debs,
                  int timeoutMs)
{
    if (!runDir.isValid()) {
        failureText = QStringLiteral("no temporary directory");
        return false;
    }
    QElapsedTimer started;
    started.start();
    QStringList arguments = {QStringLiteral("--work-dir"),  workDir,
                             QStringLiteral("--share"),     runPath(runDir, "share"),
                             QStringLiteral("--qmp"),       runPath(runDir, "qmp"),
                             QStringLiteral("--build-dir"), buildDir};
    arguments += debs;
    qemu.setProcessChannelMode(QProcess::MergedChannels);
    qemu.setStandardOutputFile(runPath(runDir, "console"));
    qemu.start(QStringLiteral(SEATVM_SCRIPT_DIR "/run-seat-vm.sh"), arguments);
    if (!qemu.waitForStarted(5000)) {
        failureText = QStringLiteral("run-seat-vm.sh did not start");
        return false;
    }
    if (!waitForConsole(readyMarker, 1, timeoutMs) || !connectQmp(5000)) {
        failureText = QStringLiteral("the guest did not come up:\n") + consoleTail();
        return false;
    }
    bootTime = started.elapsed();
    return true;
}

bool SeatVm::reboot(int timeoutMs)
{
    QElapsedTimer started;
    started.start();
    const int booted = static_cast<int>(readAll(runPath(runDir, "console")).count(readyMarker));
    // The reply may be lost as the guest goes down; the console tells.
    run(QStringLiteral("systemctl reboot --no-block"), 5000);
    // The next agent reads its requests from number 1 again.
    const QString share = runPath(runDir, "share");
    for (const char* directory : {"requests", "replies"}) {
        QDir(share + QLatin1Char('/') + QLatin1String(directory)).removeRecursively();
        QDir(share).mkdir(QLatin1String(directory));
    }
    nextRequest = 1;
    if (!waitForConsole(readyMarker, booted + 1, timeoutMs)) {
        failureText = QStringLiteral("the guest did not come up again:\n") + consoleTail();
        return false;
    }
    bootTime = started.elapsed();
    return true;
}

QString SeatVm::guestSharedPath(const QString& name)
{
    return QStringLiteral("/share/") + name;
}

QString SeatVm::hostSharedPath(const QString& name) const
{
    return runPath(runDir, QStringLiteral("share/") + name);
}

bool SeatVm::waitForConsole(const QByteArray& marker, int count, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        if (readAll(runPath(runDir, "console")).count(marker) >= count) {
            return true;
        }
        if (qemu.state() == QProcess::NotRunning) {
            return false;
        }
        QThread::msleep(pollMs);
    }
    return false;
}

bool SeatVm::connectQmp(int timeoutMs)
{
    const QByteArray path = runPath(runDir, "qmp").toLocal8Bit();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (static_cast<size_t>(path.size()) >= sizeof(address.sun_path)) {
        return false;
    }
    memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    qmpSocket.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!qmpSocket.isValid() ||
        ::connect(qmpSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
            0) {
        return false;
    }
    // The greeting, then the capabilities' negotiation.
    return !readQmpLine(timeoutMs).isEmpty() && qmp(R"({"execute": "qmp_capabilities"})");
}

QByteArray SeatVm::readQmpLine(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        const int end = qmpInput.indexOf('\n');
        if (end >= 0) {
            const QByteArray line = qmpInput.left(end);
            qmpInput.remove(0, end + 1);
            return line;
        }
        pollfd polled{qmpSocket.get(), POLLIN, 0};
        const int remaining = static_cast<int>(deadline.remainingTime());
        if (remaining <= 0 || poll(&polled, 1, remaining) <= 0) {
            return QByteArray();
        }
        char buffer[4096];
        const ssize_t got = read(qmpSocket.get(), buffer, sizeof(buffer));
        if (got <= 0) {
            return QByteArray();
        }
        qmpInput.append(buffer, static_cast<int>(got));
    }
}

bool SeatVm::qmp(const QByteArray& command)
{
    if (!qmpSocket.isValid()) {
        return false;
    }
    const QByteArray line = command + '\n';
    if (send(qmpSocket.get(), line.constData(), static_cast<size_t>(line.size()), MSG_NOSIGNAL) !=
        line.size()) {
        return false;
    }
    // Events may come before the answer: lines are read until it.
    const QDeadlineTimer deadline(5000);
    while (!deadline.hasExpired()) {
        const QByteArray answerLine = readQmpLine(static_cast<int>(deadline.remainingTime()));
        if (answerLine.isEmpty()) {
            return false;
        }
        const QJsonObject answer = QJsonDocument::fromJson(answerLine).object();
        if (answer.contains("return")) {
            return true;
        }
        if (answer.contains("error")) {
            return false;
        }
    }
    return false;
}

bool SeatVm::tapKeys(const QString& displayDevice, const QStringList& qcodes)
{
    for (const QString& qcode : qcodes) {
        if (!qmp(keyEvent(displayDevice, qcode, true))) {
            return false;
        }
    }
    for (auto qcode = qcodes.crbegin(); qcode != qcodes.crend(); ++qcode) {
        if (!qmp(keyEvent(displayDevice, *qcode, false))) {
            return false;
        }
    }
    return true;
}

bool SeatVm::click(const QString& displayDevice)
{
    return qmp(buttonEvent(displayDevice, true)) && qmp(buttonEvent(displayDevice, false));
}

SeatVm::Reply SeatVm::run(const QString& script, int timeoutMs)
{
    const int number = nextRequest++;
    const QString share = runPath(runDir, "share");
    Reply reply;
    if (!writeRequest(QStringLiteral("%1/requests/%2.sh").arg(share).arg(number), script)) {
        reply.output = QStringLiteral("the request could not be written");
        return reply;
    }
    const QString status = QStringLiteral("%1/replies/%2.rc").arg(share).arg(number);
    const QDeadlineTimer deadline(timeoutMs);
    while (!QFile::exists(status)) {
        if (deadline.hasExpired() || qemu.state() == QProcess::NotRunning) {
            reply.output = QStringLiteral("no answer within %1 ms").arg(timeoutMs);
            return reply;
        }
        QThread::msleep(pollMs);
    }
    reply.status = readAll(status).trimmed().toInt();
    reply.output =
        QString::fromUtf8(readAll(QStringLiteral("%1/replies/%2.out").arg(share).arg(number)));
    return reply;
}

bool SeatVm::waitUntil(const QString& script, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        const Reply reply = run(script, static_cast<int>(deadline.remainingTime()));
        if (reply.status == 0) {
            return true;
        }
        QThread::msleep(2 * pollMs);
    }
    return false;
}

void SeatVm::stop()
{
    if (qemu.state() == QProcess::NotRunning) {
        return;
    }
    qmp(R"({"execute": "quit"})");
    if (!qemu.waitForFinished(10000)) {
        qemu.kill();
        qemu.waitForFinished(5000);
    }
}

QString SeatVm::consoleTail(int lines) const
{
    const QStringList all =
        QString::fromUtf8(readAll(runPath(runDir, "console"))).split(QLatin1Char('\n'));
    return all.mid(qMax(0, static_cast<int>(all.size()) - lines)).join(QLatin1Char('\n'));
}
