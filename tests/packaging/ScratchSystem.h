#pragma once

#include <QStringList>
#include <QTemporaryDir>

// The host's /etc, /usr and /var under overlays whose writable layers lie on a
// tmpfs, and an empty tmpfs on /run, all in the test's own mount namespace
// (see privateMountNamespace): dpkg and the maintainer scripts change these,
// the host never sees it. With /run empty there is no /run/systemd/system, so
// the scripts act as where systemd is not running (it is not PID 1 here
// either), and nothing reaches a systemd of the host. Unmounted when
// destroyed.
class ScratchSystem
{
public:
    ScratchSystem();
    ~ScratchSystem();

    ScratchSystem(const ScratchSystem&) = delete;
    ScratchSystem& operator=(const ScratchSystem&) = delete;

    // Why a mount failed, or an empty string.
    QString error() const { return failure; }

    // Makes the calling process's own mount namespace, in which the mounts
    // above stay; to be called while the process has one thread only
    // (unshare moves just the calling thread), before QCoreApplication. A
    // ScratchSystem mounts nothing, and says why, unless this worked.
    static void privateMountNamespace();

private:
    // Mounts unless an earlier mount failed.
    void mountOn(const QString& target, const char* type, const QString& options);

    QTemporaryDir layers;
    QStringList mounted;
    QString failure;
};

// The service account as the system sees it now, and commands run as it.
namespace ServiceAccount {

// The account's uid (getent reads the user database afresh), -1 when there is
// no such account.
int uid(const QString& account);

// Arguments of setpriv that run the command as the account, with the
// environment that systemd gives a unit with User= (HOME, SHELL, USER, LOGNAME
// and PATH) and the variables given before the command ("NAME=value").
QStringList asAccount(const QString& account, const QStringList& command);

} // namespace ServiceAccount
