#include "ScratchSystem.h"

#include "ToolRun.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <sched.h>
#include <sys/mount.h>

namespace {

// The errno of making the private mount namespace, 0 once it is made, -1
// before privateMountNamespace.
int namespaceError = -1;

} // namespace

ScratchSystem::ScratchSystem()
{
    if (namespaceError < 0) {
        failure = QStringLiteral("the process has no private mount namespace");
    } else if (namespaceError > 0) {
        failure = QStringLiteral("cannot make a private mount namespace: ") +
                  QString::fromLocal8Bit(strerror(namespaceError));
    }
    mountOn(layers.path(), "tmpfs", QStringLiteral("mode=0700"));
    for (const QString& dir :
         {QStringLiteral("etc"), QStringLiteral("usr"), QStringLiteral("var")}) {
        const QString upper = layers.filePath(dir + QStringLiteral("-upper"));
        const QString work = layers.filePath(dir + QStringLiteral("-work"));
        QDir().mkdir(upper);
        QDir().mkdir(work);
        mountOn(QLatin1Char('/') + dir, "overlay",
                QStringLiteral("lowerdir=/%1,upperdir=%2,workdir=%3").arg(dir, upper, work));
    }
    mountOn(QStringLiteral("/run"), "tmpfs", QStringLiteral("mode=0755"));
}

ScratchSystem::~ScratchSystem()
{
    for (auto target = mounted.crbegin(); target != mounted.crend(); ++target) {
        umount2(QFile::encodeName(*target).constData(), MNT_DETACH);
    }
}

void ScratchSystem::privateMountNamespace()
{
    namespaceError =
        unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
            ? 0
            : errno;
}

void ScratchSystem::mountOn(const QString& target, const char* type, const QString& options)
{
    if (!failure.isEmpty()) {
        return;
    }
    if (mount(type, QFile::encodeName(target).constData(), type, 0,
              options.toLocal8Bit().constData()) != 0) {
        failure = QStringLiteral("cannot mount %1 on %2: %3")
                      .arg(QLatin1String(type), target, QString::fromLocal8Bit(strerror(errno)));
        return;
    }
    mounted.append(target);
}

int ServiceAccount::uid(const QString& account)
{
    const ToolRun getent =
        ToolRun::run(QStringLiteral("getent"), {QStringLiteral("passwd"), account});
    return getent.status == 0 ? getent.standardOutput.split(':').value(2).toInt() : -1;
}

QStringList ServiceAccount::asAccount(const QString& account, const QStringList& command)
{
    return QStringList{QStringLiteral("--reuid=") + account, QStringLiteral("--regid=") + account,
                       QStringLiteral("--init-groups"), QStringLiteral("--reset-env"),
                       QStringLiteral("env")} +
           command;
}
