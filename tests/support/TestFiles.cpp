#include "TestFiles.h"

#include <QFile>
#include <QFileInfo>

QByteArray readFile(const QString& fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& fileName, const QByteArray& content)
{
    QFile file(fileName);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(content) == content.size();
}

QString commandWaitingFor(const QString& gate)
{
    return "until [ -e '" + gate + "' ] || [ ! -e '" + QFileInfo(gate).path() +
           "' ]; do sleep 0.02; done";
}
