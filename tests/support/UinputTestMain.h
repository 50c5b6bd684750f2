#pragma once

#include "UinputDevice.h"

#include <QCoreApplication>
#include <QtTest>

#include <cstdio>

// Like QTEST_GUILESS_MAIN, but exits with 77 (skipped) when this machine
// cannot create uinput devices, so the test is never counted as passed
// without having run.
#define SELVANE_UINPUT_TEST_MAIN(TestObject)                                                       \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        if (!UinputDevice::isAvailable()) {                                                        \
            std::fprintf(stderr, "SKIP: /dev/uinput cannot be opened for writing\n");              \
            return 77;                                                                             \
        }                                                                                          \
        QCoreApplication app(argc, argv);                                                          \
        TestObject test;                                                                           \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&test, argc, argv);                                                    \
    }
