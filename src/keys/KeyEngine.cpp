#include "keys/KeyEngine.h"

#include <algorithm>
#include <utility>

bool KeyEngine::Combination::matches(const KeyState& keys) const
{
    // Only the key whose press is being examined counts as just pressed, so a combination
    // matches on the press that completes it.
    return std::all_of(holdKeys.begin(), holdKeys.end(),
                       [&](int key) { return keys.isPressed(key); }) &&
           std::all_of(pressKeys.begin(), pressKeys.end(),
                       [&](int key) { return keys.isPressedOnce(key); });
}

void KeyEngine::setCommandCombinations(std::vector<Combination> combinations,
                                       const std::map<std::size_t, std::size_t>& kept)
{
    commands = std::move(combinations);
    for (auto& [id, device] : devices) {
        std::vector<std::size_t> carried;
        for (const std::size_t trigger : device.triggers) {
            const auto same = kept.find(trigger);
            if (same != kept.end() && same->second < commands.size() &&
                std::find(carried.begin(), carried.end(), same->second) == carried.end()) {
                carried.push_back(same->second);
            }
        }
        device.triggers = std::move(carried);
    }
}

void KeyEngine::setClaimKeys(std::vector<Combination> keys)
{
    claimKeys = std::move(keys);
    armed.assign(claimKeys.size(), false);
}

void KeyEngine::setClaimKeyArmed(std::size_t index, bool on)
{
    if (index < armed.size()) {
        armed[index] = on;
    }
}

bool KeyEngine::isClaimKeyArmed(std::size_t index) const
{
    return index < armed.size() && armed[index];
}

void KeyEngine::withdrawClaim(DeviceId id, std::size_t index)
{
    setClaimKeyArmed(index, true);
    const auto found = devices.find(id);
    if (found != devices.end()) {
        found->second.claimed = false;
    }
}

void KeyEngine::addDevice(DeviceId id, const KeyState& keys)
{
    Device device;
    device.keys = keys;
    devices[id] = std::move(device);
}

void KeyEngine::removeDevice(DeviceId id)
{
    devices.erase(id);
}

bool KeyEngine::hasDevice(DeviceId id) const
{
    return devices.count(id) != 0;
}

std::vector<KeyEngine::Decision> KeyEngine::feed(DeviceId id, const std::vector<KeyRecord>& records)
{
    std::vector<Decision> decisions;
    const auto found = devices.find(id);
    if (found == devices.end()) {
        return decisions;
    }
    Device& device = found->second;
    for (const KeyRecord& record : records) {
        if (record.type == KeyRecord::Type::FRAME_END) {
            examineFrame(id, device, record.value == 1, decisions);
            continue;
        }
        device.frame.push_back(record);
        if (device.frame.size() >= maxFrameRecords) {
            examineFrame(id, device, false, decisions);
        }
    }
    return decisions;
}

const KeyState* KeyEngine::keyState(DeviceId id) const
{
    const auto found = devices.find(id);
    return found == devices.end() ? nullptr : &found->second.keys;
}

std::vector<std::size_t> KeyEngine::waitingCommands(DeviceId id) const
{
    const auto found = devices.find(id);
    return found == devices.end() ? std::vector<std::size_t>{} : found->second.triggers;
}

void KeyEngine::examineFrame(DeviceId id, Device& device, bool fromKernel,
                             std::vector<Decision>& decisions)
{
    const std::vector<KeyRecord> frame = std::exchange(device.frame, {});
    for (const KeyRecord& record : frame) {
        examineKey(id, device, record, fromKernel, decisions);
    }
}

void KeyEngine::examineKey(DeviceId id, Device& device, const KeyRecord& record, bool fromKernel,
                           std::vector<Decision>& decisions)
{
    device.keys.apply(record.code, record.value == 1);

    for (std::size_t index = 0; index < commands.size(); ++index) {
        const auto& triggers = device.triggers;
        if (commands[index].matches(device.keys) &&
            std::find(triggers.begin(), triggers.end(), index) == triggers.end()) {
            device.triggers.push_back(index);
        }
    }

    // The first armed key that matches claims the device; a device claims once.
    for (std::size_t index = 0; !device.claimed && index < claimKeys.size(); ++index) {
        if (armed[index] && claimKeys[index].matches(device.keys)) {
            armed[index] = false;
            device.claimed = true;
            decisions.push_back({Decision::Kind::CLAIM, id, index});
        }
    }

    // The press that completes a match leaves keys down, so a command that matched just now
    // never runs on the same record. When a device goes away the kernel first releases every
    // key still held; such a release completes nothing, and the device's commands are dropped.
    if (!device.keys.isPressed() && !device.triggers.empty()) {
        if (fromKernel) {
            decisions.push_back({Decision::Kind::DROP_TRIGGERS, id, 0});
        } else {
            for (const std::size_t index : device.triggers) {
                decisions.push_back({Decision::Kind::RUN_COMMAND, id, index});
            }
        }
        device.triggers.clear();
    }
    device.keys.settle();
}
