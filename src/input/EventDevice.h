#pragma once

#include <QHash>
#include <QObject>
#include <QString>
#include <QVector>

#include <linux/input-event-codes.h>

#include <array>

// One opened evdev input device (/dev/input/event*). It tracks which keys and buttons are down,
// emits keymapChanged() for every key press and release, carries the named variables that
// describe it to commands run on its behalf, and switches its keyboard LEDs.
//
// A device that could not be opened or has no keys is closed (getFd() is -1) right after
// construction; so is one that was unplugged. Owners delete closed devices.
class EventDevice : public QObject
{
    Q_OBJECT

public:
    // Highest key code tracked; the key state has one bit per code 0..lastKeyCode.
    static constexpr int lastKeyCode = KEY_MAX;
    // Highest LED code that can be switched.
    static constexpr int lastLedCode = LED_MAX - 1;

    explicit EventDevice(QString deviceFileName);
    ~EventDevice() override;

    int getFd() const { return fd; }
    QString getDeviceFileName() const { return deviceFileName; }

    // Processes whatever the kernel has queued, without waiting.
    void readDevice();

    bool isKeyPressed(int key) const;
    // Whether any key 0..lastKeyCode-1 is down.
    bool isKeyPressed() const;
    // Whether `key` went down in the key event being reported now.
    bool isKeyPressedOnce(int key) const;
    void updateKeymaps();

    QHash<QString, QString> getDeviceVariables() const { return deviceVariables; }
    void setDeviceVariable(QString name, QString value);

    // Saves the LED state the kernel reports, for restoreLedState().
    void storeLedState();
    // Writes every saved LED state back to the device.
    void restoreLedState();
    void setLedOn(int ledCode, bool on);

    static void readEvents(QVector<EventDevice*>& devices);
    static void deleteClosedEventDevices(QVector<EventDevice*>& devices);

Q_SIGNALS:
    void keymapChanged(const EventDevice* device);

private:
    using KeyBits = std::array<unsigned char, KEY_MAX / 8 + 1>;
    using LedBits = std::array<unsigned char, LED_MAX / 8 + 1>;

    bool writeLedEvent(int ledCode, bool on);
    void closeDescriptor();

    int fd = -1;
    QString deviceFileName;
    KeyBits keyState{};
    KeyBits previousKeyState{};
    QHash<QString, QString> deviceVariables;
    LedBits ledState{};
};
