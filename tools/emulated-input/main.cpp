// emulated-input: creates emulated keyboards and mice as umockdev evdev nodes
// and types key presses into them on command, so that a daemon started with
// umockdev's preload library sees real-looking input devices.

#include "DeviceDescription.h"
#include "UmockdevTestbed.h"
#include "input/InputKeyCode.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QStringList>

#include <cstdio>
#include <iostream>
#include <string>

namespace {

constexpr char description[] =
    "Creates emulated input devices under a umockdev testbed and prints\n"
    "  UMOCKDEV_DIR=<testbed root>\n"
    "  LD_PRELOAD=<umockdev's preload library>\n"
    "  <keyboard|mouse> <index> <device path>     (one line per device)\n"
    "  ready\n"
    "A program started with those two variables sees the devices. Then one command a\n"
    "line is read from standard input and answered with \"ok\" or \"error: <reason>\":\n"
    "  press <index> <key>      key down, e.g. press 0 KEY_LEFTCTRL\n"
    "  release <index> <key>    key up\n"
    "  tap <index> <key>        key down, then up\n"
    "  quit                     remove the devices and exit (also at end of input)\n"
    "Keys are Linux names (KEY_F1, BTN_LEFT) or decimal codes. The devices live as\n"
    "long as this program runs.";

void say(const QString& line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    fflush(stdout);
}

int keyCode(const QString& key)
{
    if (const InputKeyCode* entry = InputKeyCode::keyCodeFindByName(key)) {
        return entry->getCode();
    }
    bool isNumber = false;
    const int code = key.toInt(&isNumber);
    return isNumber && code >= 0 && code <= KEY_MAX ? code : -1;
}

// Runs one command line; an empty result means success.
QString runCommand(UmockdevTestbed& testbed, const QStringList& nodes, const QStringList& words)
{
    const QString verb = words.value(0);
    if (verb != QLatin1String("press") && verb != QLatin1String("release") &&
        verb != QLatin1String("tap")) {
        return QStringLiteral("unknown command '%1'").arg(verb);
    }
    if (words.size() != 3) {
        return QStringLiteral("usage: %1 <index> <key>").arg(verb);
    }
    bool isNumber = false;
    const int index = words.at(1).toInt(&isNumber);
    if (!isNumber || index < 0 || index >= nodes.size()) {
        return QStringLiteral("no device %1").arg(words.at(1));
    }
    const int code = keyCode(words.at(2));
    if (code < 0) {
        return QStringLiteral("unknown key %1").arg(words.at(2));
    }
    const QString& node = nodes.at(index);
    const bool written = verb == QLatin1String("release")
                             ? testbed.releaseKey(node, code)
                             : testbed.pressKey(node, code) && (verb == QLatin1String("press") ||
                                                                testbed.releaseKey(node, code));
    return written ? QString() : QStringLiteral("cannot write to %1").arg(node);
}

int readCount(const QCommandLineParser& parser, const QString& option)
{
    bool isNumber = false;
    const int count = parser.value(option).toInt(&isNumber);
    return isNumber && count >= 0 ? count : -1;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("emulated-input"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(description));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("keyboards"), QStringLiteral("Number of keyboards (1)."),
                      QStringLiteral("n"), QStringLiteral("1")});
    parser.addOption({QStringLiteral("mice"), QStringLiteral("Number of mice (0)."),
                      QStringLiteral("n"), QStringLiteral("0")});
    parser.process(application);
    const int keyboards = readCount(parser, QStringLiteral("keyboards"));
    const int mice = readCount(parser, QStringLiteral("mice"));
    if (keyboards < 0 || mice < 0) {
        fprintf(stderr, "emulated-input: --keyboards and --mice take a number of devices\n");
        return 1;
    }
    if (UmockdevTestbed::preloadLibrary().isEmpty()) {
        fprintf(stderr, "emulated-input: umockdev's preload library is not installed\n");
        return 1;
    }

    InputKeyCode::buildTable();
    UmockdevTestbed testbed;
    say(QStringLiteral("UMOCKDEV_DIR=") + testbed.rootDir());
    say(QStringLiteral("LD_PRELOAD=") + UmockdevTestbed::preloadLibrary());
    QStringList nodes;
    for (int index = 0; index < keyboards + mice; ++index) {
        const bool isKeyboard = index < keyboards;
        const QString name =
            QStringLiteral("Emulated %1 %2")
                .arg(isKeyboard ? QStringLiteral("Keyboard") : QStringLiteral("Mouse"))
                .arg(index);
        const QString node = testbed.addDevice(isKeyboard ? DeviceDescription::keyboard(name)
                                                          : DeviceDescription::mouse(name));
        if (node.isEmpty()) {
            fprintf(stderr, "emulated-input: cannot create %s\n", qPrintable(name));
            InputKeyCode::cleanupTable();
            return 1;
        }
        nodes.append(node);
        say(QStringLiteral("%1 %2 %3")
                .arg(isKeyboard ? QStringLiteral("keyboard") : QStringLiteral("mouse"))
                .arg(index)
                .arg(node));
    }
    say(QStringLiteral("ready"));

    // umockdev answers the clients' ioctls on a thread of its own, so the main
    // thread can simply block on standard input.
    std::string line;
    while (std::getline(std::cin, line)) {
        const QStringList words =
            QString::fromStdString(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (words.isEmpty()) {
            continue;
        }
        if (words.first() == QLatin1String("quit")) {
            break;
        }
        const QString error = runCommand(testbed, nodes, words);
        say(error.isEmpty() ? QStringLiteral("ok") : QStringLiteral("error: ") + error);
    }
    InputKeyCode::cleanupTable();
    return 0;
}
