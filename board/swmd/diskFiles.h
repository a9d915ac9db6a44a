#pragma once

#include "storeFiles.h"

namespace merlow::board {

/// The store's files in a folder that this object alone uses, among all processes of the machine.
class DiskFiles : public StoreFiles {
public:
    DiskFiles() = default;
    ~DiskFiles() override;
    DiskFiles(const DiskFiles&) = delete;
    DiskFiles& operator=(const DiskFiles&) = delete;

    /// Opens the folder "software" of the state folder, and makes what is missing of it. Gives what went
    /// wrong, also that another process has the folder; empty when nothing did.
    [[nodiscard]] std::string open();

    std::string place() const override { return m_place; }
    [[nodiscard]] std::string list(std::vector<Listed>& files) override;
    [[nodiscard]] std::string readStart(const std::string& name, std::size_t size, Bytes& start) override;
    [[nodiscard]] std::string create(const std::string& name, std::unique_ptr<StoreFile>& file) override;
    [[nodiscard]] std::string rename(const std::string& from, const std::string& to) override;
    [[nodiscard]] std::string remove(const std::string& name) override;
    [[nodiscard]] std::string syncFolder() override;

private:
    std::string m_place;
    int m_folder = -1;
};

} // namespace merlow::board
