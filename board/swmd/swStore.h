#pragma once

#include "inventory.h"
#include "loadModule.h"
#include "storeFiles.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace merlow::board {

struct SwStoreConfig {
    std::uint32_t slots = 4; ///< for loaded modules; the preinstalled one needs none
    std::optional<loadmodule::SoftwareId> preinstalled;
    std::optional<loadmodule::SoftwareId> running; ///< from this start on; nothing for what ran last
    std::uint64_t moduleBytes = 536'870'912;       ///< of the largest module's file that is taken
    /// Bytes of a load that come before the disk is given them, so that a slow one has little left at the
    /// end, for which the client waits.
    std::uint64_t writeBackBytes = 4'194'304;
};

/// The board's software: load modules in slots, and the preinstalled one that cannot be loaded or deleted.
///
///   beginLoad: an entry WRITING, a file NAME.lm.part
///   endLoad:   the file is synced, gets its name NAME.lm, the folder is synced, the entry becomes VALID
///
/// So a module is valid only when it is whole on the disk, and whatever a death leaves behind is told from
/// one by its entry. One load at a time. Thread: one only.
class SwStore {
public:
    /// Files and inventory outlive the store.
    SwStore(SwStoreConfig config, StoreFiles& files, Inventory& inventory);

    /// Reads what the last process left and cleans it. Once, before anything else. Gives what went wrong,
    /// empty when nothing did; `said` gets a line for each thing that was cleaned.
    [[nodiscard]] std::string open(std::vector<std::string>& said);

    std::string place() const { return m_files.place(); }
    const SwStoreConfig& config() const { return m_config; }
    /// By slot, the preinstalled one first.
    const std::vector<StoredModule>& modules() const { return m_modules; }
    const StoredModule* find(const loadmodule::SoftwareId& id) const;
    const StoredModule* running() const;

    enum class Begun : std::uint8_t { started, running, alreadyLoaded, busy, noSlot, failed };
    [[nodiscard]] Begun beginLoad(const loadmodule::SoftwareId& id);
    bool isLoading() const { return m_load != nullptr; }
    /// Bytes of the load in hand that came so far.
    std::uint64_t loadedBytes() const;
    /// The next piece of the load in hand. What is wrong with it, or cannot be written, shows at the end.
    void addPiece(BytesView piece);
    /// Ends the load in hand: gives whether its module is valid now.
    [[nodiscard]] bool endLoad();
    /// Gives the load in hand up; harmless without one.
    void dropLoad();

    enum class Removed : std::uint8_t { done, unknown, readOnly, busy, failed };
    [[nodiscard]] Removed remove(const loadmodule::SoftwareId& id);

    /// The list of what the valid modules consist of, in XML.
    std::string componentList() const;

    /// What went wrong in the last operation that failed, for people.
    const std::string& error() const { return m_error; }

private:
    struct Load {
        explicit Load(loadmodule::SoftwareId software) : id(software), check(std::move(software)) {}

        loadmodule::SoftwareId id;
        std::uint32_t slot = 0;
        std::uint64_t size = 0;
        std::uint64_t writtenBack = 0; ///< of `size`, what the disk was given
        loadmodule::LoadModuleCheck check;
        std::string error; ///< what stands against it but for what `check` finds
        std::unique_ptr<StoreFile> file;
    };

    std::string objectionTo(const StoredModule& module, const std::vector<StoreFiles::Listed>& files,
                            std::string& error) const;
    std::string cleanEntries(const std::vector<StoreFiles::Listed>& files, std::vector<std::string>& said);
    std::string cleanFiles(const std::vector<StoreFiles::Listed>& files, std::vector<std::string>& said);
    std::string settlePreinstalled(std::vector<std::string>& said);
    std::string settleRunning(std::vector<std::string>& said);
    std::string finish(Load& load);
    std::optional<std::uint32_t> freeSlot() const;
    StoredModule* entryAt(std::uint32_t slot);
    void forget(std::uint32_t slot);

    SwStoreConfig m_config;
    StoreFiles& m_files;
    Inventory& m_inventory;
    std::vector<StoredModule> m_modules;
    std::unique_ptr<Load> m_load;
    std::string m_error;
};

} // namespace merlow::board
