/// A load module of the reference board: a header, and behind it the software itself, any bytes.
///
/// | Offset | Size | Field |
/// | 0 | 8 | "MERLOWLM" |
/// | 8 | 4 | format, 1 |
/// | 12 | 8 | length of the content in bytes |
/// | 20 | 32 | SHA-256 of the content |
/// | 52 | 28 | product number, the rest cleared |
/// | 80 | 16 | revision, the rest cleared |
/// | 96 | length | content |
///
/// Numbers are in network order. The loading protocol tells neither length nor digest, and a load that its
/// client gave up ends like one that is complete: only the header tells them apart.
///
/// Nothing here is for several threads at a time. Operations throw std::runtime_error when the cryptographic
/// library fails, as it does without memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace merlow::loadmodule {

constexpr std::size_t headerSize = 96;
/// Clients read an identity into 36 bytes with its end.
constexpr std::size_t maxIdSize = 35;
constexpr std::size_t maxNumberSize = 27;
constexpr std::size_t maxRevisionSize = 15;

/// What names a load module: product number and revision, both of letters, digits, '-' and '.', the number
/// also of '/'. Written "NUMBER_REVISION".
struct SoftwareId {
    std::string number;
    std::string revision;

    bool operator==(const SoftwareId&) const = default;
    auto operator<=>(const SoftwareId&) const = default;
};

std::string toText(const SoftwareId& id);
/// Nothing when `text` names no load module: a part is missing, too long, or has other characters.
std::optional<SoftwareId> softwareIdFrom(std::string_view text);

using Digest = std::array<std::byte, 32>;

/// Takes content piece by piece.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void add(std::span<const std::byte> content);
    /// Of all that was added. Nothing may be added afterwards.
    Digest finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

struct Header {
    SoftwareId software;
    std::uint64_t length = 0; ///< of the content
    Digest digest{};          ///< of the content

    bool operator==(const Header&) const = default;
};

/// Throws std::invalid_argument when `header.software` is none that `softwareIdFrom` gives.
std::array<std::byte, headerSize> encode(const Header& header);

/// A header, or what is wrong with it, for people.
struct DecodedHeader {
    std::optional<Header> header;
    std::string error; ///< empty when there is a header
};

/// Looks at the first `headerSize` bytes; fewer are no header.
DecodedHeader decode(std::span<const std::byte> bytes);

/// Whether a file that begins with `bytes` is meant to be a load module.
bool hasMagic(std::span<const std::byte> bytes);

/// Looks at a load module while it comes in, in pieces of any size, and keeps none of it.
class LoadModuleCheck {
public:
    /// `expected` is what the module must be.
    explicit LoadModuleCheck(SoftwareId expected);

    /// Gives whether the module can still be right. What comes after the first mistake is not looked at.
    bool add(std::span<const std::byte> piece);
    /// All has come: gives whether the module is whole and right.
    bool finish();
    /// The first mistake, for people; empty when there was none.
    const std::string& error() const { return m_error; }

private:
    bool fail(std::string error);

    SoftwareId m_expected;
    std::array<std::byte, headerSize> m_headerBytes{};
    std::size_t m_headerFilled = 0;
    std::optional<Header> m_header;
    std::uint64_t m_contentSize = 0;
    Sha256 m_sha;
    std::string m_error;
};

} // namespace merlow::loadmodule
