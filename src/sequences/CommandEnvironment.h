#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVector>

// The environment a command of a device runs with.
class CommandEnvironment
{
public:
    // The daemon's own environment with `variables` added under upper-cased names; a variable
    // replaces an inherited one of the same name, and of two variables whose names differ only
    // by case the later one in the hash's order wins. Names and values are taken byte for byte
    // (Latin-1). Entries are "NAME=value".
    static QVector<QByteArray> build(const QHash<QString, QString>& variables);
};
