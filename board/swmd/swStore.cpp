#include "swStore.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace merlow::board {

using loadmodule::SoftwareId;
using Access = StoredModule::Access;
using Status = StoredModule::Status;
using Type = StoredModule::Type;

namespace {

constexpr std::uint32_t preinstalledSlot = 0;
constexpr std::string_view fileEnding = ".lm";
constexpr std::string_view partEnding = ".part";

std::string fileNameOf(const SoftwareId& id)
{
    std::string name = toText(id);
    std::replace(name.begin(), name.end(), '/', '%');
    return name.append(fileEnding);
}

std::string partNameOf(const SoftwareId& id)
{
    return fileNameOf(id).append(partEnding);
}

/// Whether the store makes files of such names; others in its folder are not its business.
bool isOwnFile(std::string_view name)
{
    return name.ends_with(fileEnding) ||
           (name.ends_with(partEnding) &&
            name.substr(0, name.size() - partEnding.size()).ends_with(fileEnding));
}

StoredModule preinstalledModule(const SoftwareId& id)
{
    return {preinstalledSlot, id, Type::preinstalled, 0, Status::valid, Access::readOnly, false};
}

std::string element(const char* name, const std::string& text)
{
    return std::string("<") + name + ">" + text + "</" + name + ">\n";
}

} // namespace

SwStore::SwStore(SwStoreConfig config, StoreFiles& files, Inventory& inventory)
    : m_config(std::move(config)), m_files(files), m_inventory(inventory)
{
}

std::string SwStore::open(std::vector<std::string>& said)
{
    std::vector<StoreFiles::Listed> files;
    if (std::string error = m_inventory.load(m_modules); !error.empty()) {
        return "the inventory cannot be read: " + error;
    }
    if (std::string error = m_files.list(files); !error.empty()) {
        return "the folder cannot be read: " + error;
    }
    std::string error = cleanEntries(files, said);
    if (error.empty()) {
        error = settlePreinstalled(said);
    }
    if (error.empty()) {
        error = cleanFiles(files, said);
    }
    return error.empty() ? settleRunning(said) : error;
}

/// What stands against an entry's module, for people; empty for nothing, or when `error` tells that it could
/// not be found out.
std::string SwStore::objectionTo(const StoredModule& module, const std::vector<StoreFiles::Listed>& files,
                                 std::string& error) const
{
    if (module.status != Status::valid) {
        return "its load had not ended";
    }
    if (module.type == Type::preinstalled) {
        return "it is in the slot of a load";
    }
    const std::string name = fileNameOf(module.id);
    const auto file = std::find_if(files.begin(), files.end(),
                                   [&name](const StoreFiles::Listed& listed) { return listed.name == name; });
    if (file == files.end()) {
        return "its file is gone";
    }
    if (file->size != module.size) {
        return "its file has " + std::to_string(file->size) + " bytes of " + std::to_string(module.size);
    }
    Bytes start;
    error = m_files.readStart(name, loadmodule::headerSize, start);
    if (!error.empty()) {
        error = "the file " + name + " cannot be read: " + error;
        return "";
    }
    const auto header = loadmodule::decode(start).header;
    return header && header->software == module.id ? "" : "its file is another one";
}

std::string SwStore::cleanEntries(const std::vector<StoreFiles::Listed>& files,
                                  std::vector<std::string>& said)
{
    std::vector<StoredModule> kept;
    for (const StoredModule& module : m_modules) {
        std::string error;
        std::string objection = module.slot == preinstalledSlot ? "" : objectionTo(module, files, error);
        if (!error.empty()) {
            return error;
        }
        const auto same = std::find_if(kept.begin(), kept.end(), [&module](const StoredModule& other) {
            return other.slot != preinstalledSlot && other.id == module.id;
        });
        if (objection.empty() && same != kept.end()) {
            objection = "it is in slot " + std::to_string(same->slot) + " too";
        }
        if (objection.empty()) {
            kept.push_back(module);
            continue;
        }
        if (error = m_inventory.remove(module.slot); !error.empty()) {
            return "the inventory cannot be cleaned: " + error;
        }
        said.push_back("dropped " + toText(module.id) + ": " + objection);
    }
    m_modules = std::move(kept);
    return "";
}

std::string SwStore::settlePreinstalled(std::vector<std::string>& said)
{
    std::string error;
    StoredModule* const entry = entryAt(preinstalledSlot);
    if (entry != nullptr && entry->id != m_config.preinstalled) {
        said.push_back(toText(entry->id) + " is preinstalled no more");
        error = m_inventory.remove(preinstalledSlot);
        forget(preinstalledSlot);
    } else if (entry != nullptr) {
        StoredModule right = preinstalledModule(entry->id);
        right.running = entry->running;
        if (*entry != right) {
            said.push_back("mended the entry of " + toText(right.id) + ", which is preinstalled");
            *entry = right;
            error = m_inventory.put(right);
        }
    }
    if (error.empty() && m_config.preinstalled) {
        const auto same =
            std::find_if(m_modules.begin(), m_modules.end(), [this](const StoredModule& module) {
                return module.slot != preinstalledSlot && module.id == *m_config.preinstalled;
            });
        if (same != m_modules.end()) {
            said.push_back("dropped " + toText(same->id) + ": it is preinstalled now");
            const std::uint32_t slot = same->slot;
            error = m_inventory.remove(slot);
            forget(slot);
        }
        if (error.empty() && entryAt(preinstalledSlot) == nullptr) {
            m_modules.insert(m_modules.begin(), preinstalledModule(*m_config.preinstalled));
            error = m_inventory.put(m_modules.front());
        }
    }
    return error.empty() ? "" : "the inventory cannot be written: " + error;
}

/// Removes the files of modules that have no entry.
std::string SwStore::cleanFiles(const std::vector<StoreFiles::Listed>& files, std::vector<std::string>& said)
{
    for (const auto& [name, size] : files) {
        const bool known =
            std::any_of(m_modules.begin(), m_modules.end(), [&name = name](const auto& module) {
                return module.slot != preinstalledSlot && fileNameOf(module.id) == name;
            });
        if (known || !isOwnFile(name)) {
            continue;
        }
        if (const std::string error = m_files.remove(name); !error.empty()) {
            return std::string("the file ").append(name).append(" cannot be removed: ").append(error);
        }
        said.push_back("removed the file " + name + " of " + std::to_string(size) +
                       " bytes, which belongs to no module");
    }
    return "";
}

std::string SwStore::settleRunning(std::vector<std::string>& said)
{
    const StoredModule* next = running();
    if (m_config.running) {
        if (const auto* const wanted = find(*m_config.running)) {
            next = wanted;
        } else {
            said.push_back(toText(*m_config.running) + " is not here to run");
        }
    }
    if (next == nullptr) {
        next = entryAt(preinstalledSlot);
    }
    const auto marked = std::count_if(m_modules.begin(), m_modules.end(),
                                      [](const StoredModule& module) { return module.running; });
    if (next == running() && marked <= 1) {
        return "";
    }
    const std::uint32_t slot = next->slot;
    if (std::string error = m_inventory.setRunning(slot); !error.empty()) {
        return "the inventory cannot be written: " + error;
    }
    for (StoredModule& module : m_modules) {
        module.running = module.slot == slot;
    }
    return "";
}

const StoredModule* SwStore::find(const SoftwareId& id) const
{
    const auto found = std::find_if(m_modules.begin(), m_modules.end(),
                                    [&id](const StoredModule& module) { return module.id == id; });
    return found == m_modules.end() ? nullptr : &*found;
}

const StoredModule* SwStore::running() const
{
    const auto found = std::find_if(m_modules.begin(), m_modules.end(),
                                    [](const StoredModule& module) { return module.running; });
    return found == m_modules.end() ? nullptr : &*found;
}

StoredModule* SwStore::entryAt(std::uint32_t slot)
{
    const auto found = std::find_if(m_modules.begin(), m_modules.end(),
                                    [slot](const StoredModule& module) { return module.slot == slot; });
    return found == m_modules.end() ? nullptr : &*found;
}

void SwStore::forget(std::uint32_t slot)
{
    std::erase_if(m_modules, [slot](const StoredModule& module) { return module.slot == slot; });
}

/// The lowest one. A store that once had more slots keeps what it holds, and takes nothing before enough of
/// it is deleted.
std::optional<std::uint32_t> SwStore::freeSlot() const
{
    std::uint32_t used = 0;
    std::uint32_t lowest = preinstalledSlot + 1;
    for (const StoredModule& module : m_modules) { // by slot
        used += module.slot != preinstalledSlot ? 1 : 0;
        lowest += module.slot == lowest ? 1 : 0;
    }
    return used < m_config.slots ? std::optional(lowest) : std::nullopt;
}

SwStore::Begun SwStore::beginLoad(const SoftwareId& id)
{
    if (const StoredModule* const module = find(id)) {
        if (module->running) {
            return Begun::running;
        }
        return module->status == Status::valid ? Begun::alreadyLoaded : Begun::busy;
    }
    if (m_load) {
        return Begun::busy;
    }
    const auto slot = freeSlot();
    if (!slot) {
        return Begun::noSlot;
    }
    StoredModule module;
    module.slot = *slot;
    module.id = id;
    m_error = m_inventory.put(module);
    if (!m_error.empty()) {
        return Begun::failed;
    }
    m_load = std::make_unique<Load>(id);
    m_load->slot = *slot;
    const auto place = std::find_if(m_modules.begin(), m_modules.end(),
                                    [slot](const StoredModule& other) { return other.slot > *slot; });
    m_modules.insert(place, std::move(module));
    if (std::string error = m_files.create(partNameOf(id), m_load->file); !error.empty()) {
        dropLoad();
        m_error = std::move(error);
        return Begun::failed;
    }
    return Begun::started;
}

std::uint64_t SwStore::loadedBytes() const
{
    return m_load ? m_load->size : 0;
}

void SwStore::addPiece(BytesView piece)
{
    m_load->size += piece.size();
    if (m_load->size > m_config.moduleBytes) {
        m_load->error = "it is larger than " + std::to_string(m_config.moduleBytes) + " bytes";
    }
    if (m_load->error.empty() && m_load->check.add(piece)) {
        std::string error = m_load->file->write(piece);
        if (error.empty() && m_load->size - m_load->writtenBack >= m_config.writeBackBytes) {
            m_load->writtenBack = m_load->size;
            error = m_load->file->writeBack();
        }
        if (!error.empty()) {
            m_load->error = "it cannot be written: " + error;
        }
    }
}

bool SwStore::endLoad()
{
    std::string error = finish(*m_load);
    if (error.empty()) {
        m_load.reset();
        return true;
    }
    dropLoad();
    m_error = std::move(error);
    return false;
}

/// Each step relies on those before it.
std::string SwStore::finish(Load& load)
{
    if (!load.error.empty()) {
        return load.error;
    }
    if (!load.check.finish()) {
        return load.check.error();
    }
    std::string error = load.file->sync();
    if (!error.empty()) {
        return "it cannot be synced: " + error;
    }
    error = m_files.rename(partNameOf(load.id), fileNameOf(load.id));
    if (!error.empty()) {
        return "its file cannot be renamed: " + error;
    }
    error = m_files.syncFolder();
    if (!error.empty()) {
        return "the folder cannot be synced: " + error;
    }
    StoredModule& module = *entryAt(load.slot);
    StoredModule valid = module;
    valid.size = load.size;
    valid.status = Status::valid;
    error = m_inventory.put(valid);
    if (!error.empty()) {
        return "the inventory cannot be written: " + error;
    }
    module = std::move(valid);
    return "";
}

/// What cannot be cleaned now is cleaned at the next start, and does no harm until then: the slot's next
/// entry replaces this one, and a load of the same name its file.
void SwStore::dropLoad()
{
    if (!m_load) {
        return;
    }
    m_load->file.reset();
    m_error = m_files.remove(partNameOf(m_load->id));
    for (const std::string& error :
         {m_files.remove(fileNameOf(m_load->id)), m_inventory.remove(m_load->slot)}) {
        m_error = error.empty() ? m_error : error;
    }
    forget(m_load->slot);
    m_load.reset();
}

/// The entry goes first: a file without one is no module, and goes at the next start at the latest.
SwStore::Removed SwStore::remove(const SoftwareId& id)
{
    const StoredModule* const module = find(id);
    if (module == nullptr) {
        return Removed::unknown;
    }
    if (module->access == Access::readOnly) {
        return Removed::readOnly;
    }
    if (module->running || module->status != Status::valid) {
        return Removed::busy;
    }
    m_error = m_inventory.remove(module->slot);
    if (!m_error.empty()) {
        return Removed::failed;
    }
    const std::string name = fileNameOf(id);
    forget(module->slot);
    m_error = m_files.remove(name);
    return Removed::done;
}

std::string SwStore::componentList() const
{
    std::string list = "<SwCompList>\n";
    for (const StoredModule& module : m_modules) {
        if (module.status != Status::valid) {
            continue;
        }
        list += "<LmcList>\n" + element("ProdNbr", module.id.number) + element("Rev", module.id.revision);
        list += module.type == Type::preinstalled ? "<Preinstalled/>\n" : "";
        list += "<SwList>\n<ListItem>\n" + element("ProdNbr", module.id.number) +
                element("StartRev", module.id.revision) + element("StopRev", module.id.revision) +
                "</ListItem>\n</SwList>\n</LmcList>\n";
    }
    return list + "</SwCompList>\n";
}

} // namespace merlow::board
