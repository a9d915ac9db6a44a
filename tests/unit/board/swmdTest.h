/// The software store and the SWM server in a test's memory.
#pragma once

#include "loadModule.h"
#include "swmServer.h"
#include "swStore.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace merlow::board::test {

/// What a test wants to happen to the store's operations on disk. They are numbered from 0.
class DiskFate {
public:
    struct Cut {};
    enum class Kind : std::uint8_t { none, cutBefore, cutAfter, fail };

    void arm(Kind kind, int operation)
    {
        m_kind = kind;
        m_left = operation;
    }
    void disarm() { m_kind = Kind::none; }
    /// Whether the operation has come.
    bool happened() const { return m_kind != Kind::none && m_left < 0; }

    /// Carries the operation out, or does not. Throws Cut where the process dies.
    template <class Operation> std::string operate(Operation operation)
    {
        const bool now = m_kind != Kind::none && m_left-- == 0;
        if (now && m_kind == Kind::fail) {
            return "No space left on device";
        }
        if (now && m_kind == Kind::cutBefore) {
            throw Cut{};
        }
        operation();
        if (now && m_kind == Kind::cutAfter) {
            throw Cut{};
        }
        return "";
    }

private:
    Kind m_kind = Kind::none;
    int m_left = 0;
};

/// Knows what a loss of power would leave.
class MemoryFiles : public StoreFiles {
public:
    struct Content {
        Bytes now;
        Bytes synced;
        std::vector<std::size_t> writeBacks = {}; ///< how much there was at each
    };

    explicit MemoryFiles(DiskFate& fate) : m_fate(fate) {}

    std::string place() const override { return "memory"; }
    std::string list(std::vector<Listed>& listed) override
    {
        for (const auto& [name, content] : files) {
            listed.push_back({name, content->now.size()});
        }
        return "";
    }
    std::string readStart(const std::string& name, std::size_t size, Bytes& start) override
    {
        const Bytes& bytes = files.at(name)->now;
        start.assign(bytes.begin(),
                     bytes.begin() + static_cast<std::ptrdiff_t>(std::min(size, bytes.size())));
        return readError;
    }
    std::string create(const std::string& name, std::unique_ptr<StoreFile>& file) override
    {
        return m_fate.operate([&] {
            files[name] = std::make_shared<Content>();
            file = std::make_unique<MemoryFile>(files[name], m_fate);
        });
    }
    std::string rename(const std::string& from, const std::string& to) override
    {
        return m_fate.operate([&] {
            files[to] = files.at(from);
            files.erase(from);
        });
    }
    std::string remove(const std::string& name) override
    {
        return m_fate.operate([&] { files.erase(name); });
    }
    std::string syncFolder() override
    {
        return m_fate.operate([&] { m_syncedNames = files; });
    }

    void losePower()
    {
        files = m_syncedNames;
        for (const auto& [name, content] : files) {
            content->now = content->synced;
        }
    }

    std::map<std::string, std::shared_ptr<Content>> files;
    std::string readError;

private:
    class MemoryFile : public StoreFile {
    public:
        MemoryFile(std::shared_ptr<Content> content, DiskFate& fate)
            : m_content(std::move(content)), m_fate(fate)
        {
        }
        std::string write(BytesView bytes) override
        {
            return m_fate.operate([&] { putBytes(m_content->now, bytes); });
        }
        std::string writeBack() override
        {
            return m_fate.operate([&] { m_content->writeBacks.push_back(m_content->now.size()); });
        }
        std::string sync() override
        {
            return m_fate.operate([&] { m_content->synced = m_content->now; });
        }

    private:
        std::shared_ptr<Content> m_content;
        DiskFate& m_fate;
    };

    DiskFate& m_fate;
    std::map<std::string, std::shared_ptr<Content>> m_syncedNames;
};

class MemoryInventory : public Inventory {
public:
    explicit MemoryInventory(DiskFate& fate) : m_fate(fate) {}

    std::string load(std::vector<StoredModule>& modules) override
    {
        for (const auto& [slot, module] : entries) {
            modules.push_back(module);
        }
        return "";
    }
    std::string put(const StoredModule& module) override
    {
        return m_fate.operate([&] { entries[module.slot] = module; });
    }
    std::string remove(std::uint32_t slot) override
    {
        return m_fate.operate([&] { entries.erase(slot); });
    }
    std::string setRunning(std::optional<std::uint32_t> slot) override
    {
        return m_fate.operate([&] {
            for (auto& [key, module] : entries) {
                module.running = key == slot;
            }
        });
    }

    std::map<std::uint32_t, StoredModule> entries;

private:
    DiskFate& m_fate;
};

/// A disk that outlives the stores on it.
struct MemoryDisk {
    DiskFate fate;
    MemoryFiles files{fate};
    MemoryInventory inventory{fate};
};

inline Bytes bytesOf(const std::string& text)
{
    const auto view = std::as_bytes(std::span(text));
    return {view.begin(), view.end()};
}

/// A whole load module.
inline Bytes moduleOf(const loadmodule::SoftwareId& id, const std::string& content)
{
    loadmodule::Sha256 sha;
    sha.add(std::as_bytes(std::span(content)));
    const auto header = loadmodule::encode({id, content.size(), sha.finish()});
    Bytes bytes(header.begin(), header.end());
    putBytes(bytes, bytesOf(content));
    return bytes;
}

inline loadmodule::SoftwareId softwareOf(const std::string& text)
{
    return loadmodule::softwareIdFrom(text).value();
}

/// Loads a module into the store; whether it is valid.
inline bool loadInto(SwStore& store, const std::string& software, const std::string& content)
{
    const auto id = softwareOf(software);
    if (store.beginLoad(id) != SwStore::Begun::started) {
        return false;
    }
    const Bytes module = moduleOf(id, content);
    const std::size_t half = module.size() / 2;
    store.addPiece(BytesView(module).first(half));
    store.addPiece(BytesView(module).subspan(half));
    return store.endLoad();
}

/// What the store holds, as "slot software STATUS running", one in a line.
inline std::string contentOf(const SwStore& store)
{
    std::string text;
    for (const StoredModule& module : store.modules()) {
        text += std::to_string(module.slot) + " " + toText(module.id) +
                (module.status == StoredModule::Status::valid ? "" : " not valid") +
                (module.running ? " running" : "") + "\n";
    }
    return text;
}

} // namespace merlow::board::test
