#pragma once

#include "keys/KeyRecord.h"
#include "keys/KeyState.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

// The rules of the keys, on values only: per device the key state, the combinations that
// matched and wait for the device's keys to be up again, and the claim of a station's key.
// It knows no descriptor, no clock, no device object and no handler: a device is a number
// given by its owner, a combination or a claim key is its index in the lists given here, and
// what follows from a device's records comes back as decisions, which the owner acts on after
// the call.
//
// Each device handler owns one engine and calls it on the main thread only; the engine holds no
// lock and starts no thread.
//
// Records count frame by frame: a frame's key records are examined once its end has come, so
// that the kernel's mark on the end (a frame the kernel made up when the device went away)
// is known for every record of the frame.
class KeyEngine
{
public:
    using DeviceId = std::uint64_t;

    // A combination matches on a key record when every hold key is down and every press key
    // went down in that record.
    struct Combination
    {
        std::vector<int> holdKeys;
        std::vector<int> pressKeys;

        bool matches(const KeyState& keys) const;
    };

    struct Decision
    {
        enum class Kind
        {
            // Run the command of `index` (a command combination) for the device.
            RUN_COMMAND,
            // The device pressed the claim key `index`, which a station waits for.
            CLAIM,
            // The device's waiting commands are dropped without running: the kernel released
            // its keys as it went away.
            DROP_TRIGGERS,
        };
        Kind kind;
        DeviceId device;
        std::size_t index = 0;

        friend bool operator==(const Decision& a, const Decision& b)
        {
            return a.kind == b.kind && a.device == b.device && a.index == b.index;
        }
    };

    // The most records of one frame kept while its end has not come; a device that never ends
    // its frames has its records examined in shares of this size.
    static constexpr std::size_t maxFrameRecords = 4096;

    // The combinations whose commands run once the device's keys are up. A waiting command
    // whose combination has a place in `kept` (old index -> new index) stays, under its new
    // index; the others are dropped.
    void setCommandCombinations(std::vector<Combination> combinations,
                                const std::map<std::size_t, std::size_t>& kept = {});
    // The keys that can claim a device, in the order they are tried; none is armed.
    void setClaimKeys(std::vector<Combination> keys);
    // Whether a station waits for the claim key `index` now.
    void setClaimKeyArmed(std::size_t index, bool armed);
    bool isClaimKeyArmed(std::size_t index) const;
    // The station did not take the device that claimed the key `index`: the key is armed
    // again and the device may claim once more.
    void withdrawClaim(DeviceId device, std::size_t index);

    // A device starts with the keys it holds when it is opened.
    void addDevice(DeviceId device, const KeyState& keys);
    // Forgets the device, its waiting commands and any frame not yet ended.
    void removeDevice(DeviceId device);
    bool hasDevice(DeviceId device) const;

    // Examines the device's records in order and answers what follows, in order.
    std::vector<Decision> feed(DeviceId device, const std::vector<KeyRecord>& records);

    // The device's key state, for those who show it.
    const KeyState* keyState(DeviceId device) const;
    // The command combinations waiting for the device's keys, in the order they matched.
    std::vector<std::size_t> waitingCommands(DeviceId device) const;

private:
    struct Device
    {
        KeyState keys;
        std::vector<KeyRecord> frame;
        std::vector<std::size_t> triggers;
        // A device claims one station at most.
        bool claimed = false;
    };

    void examineFrame(DeviceId id, Device& device, bool fromKernel,
                      std::vector<Decision>& decisions);
    void examineKey(DeviceId id, Device& device, const KeyRecord& record, bool fromKernel,
                    std::vector<Decision>& decisions);

    std::vector<Combination> commands;
    std::vector<Combination> claimKeys;
    std::vector<bool> armed;
    std::map<DeviceId, Device> devices;
};
