#include "sequences/CommandEnvironment.h"

#include <algorithm>

extern char** environ;

namespace {
QByteArray variableName(const QByteArray& entry)
{
    const int separator = entry.indexOf('=');
    return separator == -1 ? entry : entry.left(separator);
}
} // namespace

QVector<QByteArray> CommandEnvironment::build(const QHash<QString, QString>& variables)
{
    QVector<QByteArray> environment;
    for (char** entry = environ; entry && *entry; ++entry) {
        environment.append(QByteArray(*entry));
    }
    for (auto it = variables.constBegin(); it != variables.constEnd(); ++it) {
        const QByteArray name = it.key().toUpper().toLatin1();
        const QByteArray entry = name + '=' + it.value().toLatin1();
        const auto same =
            std::find_if(environment.begin(), environment.end(),
                         [&](const QByteArray& e) { return variableName(e) == name; });
        if (same == environment.end()) {
            environment.append(entry);
        } else {
            *same = entry;
        }
    }
    return environment;
}
