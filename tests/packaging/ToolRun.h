#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QtTest>

#include <cstdio>

// One finished run of a command-line tool (systemd-analyze, mandoc, cpack,
// lintian...), with what it printed.
struct ToolRun
{
    static constexpr int defaultTimeoutMs = 120000;

    int status = -1; // exit status; -1 when it did not start, crashed or timed out
    QByteArray standardOutput;
    QByteArray standardError;

    // Runs the program with the arguments (and the environment, if one is
    // given) and waits for it to end.
    static ToolRun run(const QString& program, const QStringList& arguments,
                       const QProcessEnvironment& environment = QProcessEnvironment(),
                       int timeoutMs = defaultTimeoutMs);
    // The first of the programs that cannot be found in PATH, or an empty string.
    static QString missingProgram(const QStringList& programs);

    // What a failed assertion prints about the run.
    QByteArray describe() const;
};

// Like QTEST_GUILESS_MAIN, but exits with 77 (skipped) when a tool the test
// needs is not installed, so that such a test never passes without having run.
#define SELVANE_TOOLS_TEST_MAIN(TestObject, ...)                                                   \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        QCoreApplication app(argc, argv);                                                          \
        const QString missing = ToolRun::missingProgram({__VA_ARGS__});                            \
        if (!missing.isEmpty()) {                                                                  \
            std::fprintf(stderr, "SKIP: %s is not installed\n", qPrintable(missing));              \
            return 77;                                                                             \
        }                                                                                          \
        TestObject test;                                                                           \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&test, argc, argv);                                                    \
    }
