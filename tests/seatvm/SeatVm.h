#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include "common/OwnedFd.h"

// The seat VM seen from the host: boots it (run-seat-vm.sh), runs shell
// scripts in it through its agent and the shared directory, and plays its
// USB keyboards and pointers through QMP. Every wait is bounded; the times of
// the boot and of each wait are kept for the test to print.
//
// The display devices that qemu binds the input devices to are "gpuA" (the
// first card, seat0's) and "gpuB" (the second); a keyboard or pointer is
// named by its qdev id ("kbdA", "kbdB", "mouseA", "mouseB").
class SeatVm
{
public:
    struct Reply
    {
        // The script's exit status, -1 when it did not end in time.
        int status = -1;
        QString output;
    };

    SeatVm();
    ~SeatVm();

    SeatVm(const SeatVm&) = delete;
    SeatVm& operator=(const SeatVm&) = delete;

    // Builds the image with `debs` installed and boots it; true once the
    // guest's agent is up. `workDir` keeps the cached root file system.
    bool boot(const QString& workDir, const QString& buildDir, const QStringList& debs,
              int timeoutMs);
    // Reboots the guest (its disk is kept) and waits until its agent is up
    // again; the requests' numbers start again with it.
    bool reboot(int timeoutMs);
    // Why boot() or reboot() failed, with the end of the console.
    QString failure() const { return failureText; }
    // How long the last boot or reboot took.
    qint64 bootMs() const { return bootTime; }

    // The guest's path of a file in the shared directory, and the host's.
    static QString guestSharedPath(const QString& name);
    QString hostSharedPath(const QString& name) const;

    // Runs `script` with bash in the guest as root.
    Reply run(const QString& script, int timeoutMs = 20000);
    // Waits until `script` exits 0, running it again every 200 ms.
    bool waitUntil(const QString& script, int timeoutMs = 20000);

    // Keys of `displayDevice`'s keyboard, by QMP's qcodes ("ctrl", "f2"):
    // pressed in this order, each in a report of its own, then released in
    // the reverse order.
    bool tapKeys(const QString& displayDevice, const QStringList& qcodes);
    // A left click of `displayDevice`'s pointer.
    bool click(const QString& displayDevice);
    // Any QMP command; true when it returned.
    bool qmp(const QByteArray& command);

    // Powers the guest off (or kills it) and waits for qemu.
    void stop();
    QString consoleTail(int lines = 40) const;

private:
    // Waits until the console shows `marker` `count` times.
    bool waitForConsole(const QByteArray& marker, int count, int timeoutMs);
    bool connectQmp(int timeoutMs);
    // The next line from QMP within `timeoutMs`, empty when none came.
    QByteArray readQmpLine(int timeoutMs);

    // The shared directory (requests/, replies/), the QMP socket and the console.
    QTemporaryDir runDir;
    QProcess qemu;
    Orvanta::OwnedFd qmpSocket;
    // What was read from the QMP socket past the last whole line.
    QByteArray qmpInput;
    int nextRequest = 1;
    qint64 bootTime = 0;
    QString failureText;
};
