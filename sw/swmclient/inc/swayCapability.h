#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// What the SWM server announces that it can do: plain records that are held by a shared pointer made for
/// their concrete type. The kind is told by `id`.
struct SWAYCapability {
    enum Id : std::uint16_t {
        PREINSTALLED = 0,
        SW_COMP_LIST = 1,
        LOCKABLE_RESOURCE_SW_STORE = 2,
        BOOT_SW_INVENTORY = 3,
        LOADING_BLOCK_SIZE = 4,
        SET_SLOT_WORKING = 5,
    };

    std::uint16_t id;
};

struct SWAYCapPreinstalled : SWAYCapability {
    SWAYCapPreinstalled() : SWAYCapability{PREINSTALLED} {}
};

struct SWAYCapSwCompList : SWAYCapability {
    SWAYCapSwCompList() : SWAYCapability{SW_COMP_LIST} {}
};

struct SWAYCapLockableResourceSwStore : SWAYCapability {
    SWAYCapLockableResourceSwStore() : SWAYCapability{LOCKABLE_RESOURCE_SW_STORE} {}
};

struct SWAYCapBootSwInventory : SWAYCapability {
    using Inventory = std::vector<std::pair<std::string, std::string>>;

    explicit SWAYCapBootSwInventory(Inventory software)
        : SWAYCapability{BOOT_SW_INVENTORY}, inventory(std::move(software))
    {
    }

    Inventory inventory; ///< product number and revision of each, in the server's order
};

struct SWAYCapLoadingBlockSize : SWAYCapability {
    explicit SWAYCapLoadingBlockSize(std::int32_t bytes)
        : SWAYCapability{LOADING_BLOCK_SIZE}, blockSize(bytes)
    {
    }

    std::int32_t blockSize; ///< in bytes, as announced: it may be 0 or negative
};

struct SWAYCapSetSlotWorking : SWAYCapability {
    SWAYCapSetSlotWorking() : SWAYCapability{SET_SLOT_WORKING} {}
};
