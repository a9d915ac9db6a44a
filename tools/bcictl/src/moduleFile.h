/// The file that is loaded onto a unit.
#pragma once

#include "loadModule.h"

#include <cstdint>
#include <fstream>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace merlow::bcictl {

/// A load module as a stream of bytes: a file that is one, or any other file with the header of one in front.
class ModuleFile {
public:
    /// Reads a file that is no load module once to learn its digest. A text for people when it cannot be
    /// read, or is a load module of another name or with a wrong length.
    static std::variant<ModuleFile, std::string> open(const std::string& path,
                                                      const loadmodule::SoftwareId& software);

    /// Of the whole stream, in bytes.
    [[nodiscard]] std::uint64_t size() const { return m_size; }

    /// The next bytes of the stream. False when the file has fewer, which it had not when it was opened.
    [[nodiscard]] bool read(std::span<std::byte> to);

private:
    ModuleFile(std::ifstream file, std::vector<std::byte> header, std::uint64_t size)
        : m_file(std::move(file)), m_header(std::move(header)), m_size(size)
    {
    }

    std::ifstream m_file;
    std::vector<std::byte> m_header; ///< what is to go out in front of the file
    std::size_t m_headerRead = 0;
    std::uint64_t m_size;
};

} // namespace merlow::bcictl
