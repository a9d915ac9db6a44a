#include "moduleFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace merlow::bcictl {

namespace {

using loadmodule::headerSize;

/// Up to `to.size()` bytes, fewer at the end of the file.
std::span<const std::byte> readSome(std::ifstream& file, std::span<std::byte> to)
{
    file.read(reinterpret_cast<char*>(to.data()), static_cast<std::streamsize>(to.size()));
    return to.first(static_cast<std::size_t>(file.gcount()));
}

std::string mistakeOf(std::span<const std::byte> start, std::uint64_t fileSize,
                      const loadmodule::SoftwareId& software)
{
    const auto decoded = loadmodule::decode(start);
    if (!decoded.header) {
        return "is a broken load module: " + decoded.error;
    }
    if (decoded.header->software != software) {
        return "is the load module " + loadmodule::toText(decoded.header->software);
    }
    const auto contentSize = fileSize - headerSize;
    if (decoded.header->length != contentSize) {
        return "is a load module with " + std::to_string(contentSize) +
               " bytes of content, its header says " + std::to_string(decoded.header->length);
    }
    return {};
}

} // namespace

std::variant<ModuleFile, std::string> ModuleFile::open(const std::string& path,
                                                       const loadmodule::SoftwareId& software)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return "cannot read " + path + ": " + std::strerror(errno);
    }
    std::vector<std::byte> buffer(std::size_t{1} << 20U);
    auto piece = readSome(file, buffer);
    if (loadmodule::hasMagic(piece)) {
        file.clear();
        file.seekg(0, std::ios::end);
        const auto size = static_cast<std::uint64_t>(file.tellg());
        const auto mistake = mistakeOf(piece.first(std::min(piece.size(), headerSize)), size, software);
        if (!mistake.empty()) {
            return path + " " + mistake;
        }
        file.seekg(0);
        return ModuleFile(std::move(file), {}, size);
    }
    loadmodule::Sha256 sha;
    std::uint64_t length = 0;
    for (; !piece.empty(); piece = readSome(file, buffer)) {
        sha.add(piece);
        length += piece.size();
    }
    if (file.bad()) {
        return "cannot read " + path;
    }
    const auto header = loadmodule::encode({software, length, sha.finish()});
    file.clear();
    file.seekg(0);
    return ModuleFile(std::move(file), {header.begin(), header.end()}, length + header.size());
}

bool ModuleFile::read(std::span<std::byte> to)
{
    const auto fromHeader = std::min(to.size(), m_header.size() - m_headerRead);
    std::copy_n(m_header.begin() + static_cast<std::ptrdiff_t>(m_headerRead), fromHeader, to.begin());
    m_headerRead += fromHeader;
    const auto rest = to.subspan(fromHeader);
    return readSome(m_file, rest).size() == rest.size();
}

} // namespace merlow::bcictl
