#include "loadModule.h"

#include <algorithm>
#include <cstring>
#include <openssl/evp.h>
#include <stdexcept>
#include <utility>

namespace merlow::loadmodule {

namespace {

constexpr std::string_view magic = "MERLOWLM";
constexpr std::uint32_t format = 1;
constexpr std::size_t formatOffset = 8;
constexpr std::size_t lengthOffset = 12;
constexpr std::size_t digestOffset = 20;
constexpr std::size_t numberOffset = 52;
constexpr std::size_t revisionOffset = 80;
static_assert(revisionOffset - numberOffset == maxNumberSize + 1);
static_assert(headerSize - revisionOffset == maxRevisionSize + 1);

bool isPart(std::string_view text, std::size_t maxSize, std::string_view marks)
{
    return !text.empty() && text.size() <= maxSize && std::all_of(text.begin(), text.end(), [marks](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               marks.find(c) != std::string_view::npos;
    });
}

bool isValid(const SoftwareId& id)
{
    return isPart(id.number, maxNumberSize, "-./") && isPart(id.revision, maxRevisionSize, "-.") &&
           id.number.size() + 1 + id.revision.size() <= maxIdSize;
}

template <class Number> Number networkAt(std::span<const std::byte> bytes, std::size_t offset)
{
    Number value = 0;
    for (const std::byte byte : bytes.subspan(offset, sizeof(Number))) {
        value = static_cast<Number>(value << 8U | std::to_integer<Number>(byte));
    }
    return value;
}

template <class Number> void putNetwork(std::byte* to, Number value)
{
    for (std::size_t index = sizeof(Number); index-- > 0; value = static_cast<Number>(value >> 8U)) {
        to[index] = static_cast<std::byte>(value);
    }
}

/// The text of a cleared array; nothing when something stands behind its end, or it has none.
std::optional<std::string> textAt(std::span<const std::byte> array)
{
    const auto end = std::find(array.begin(), array.end(), std::byte{0});
    if (end == array.end() ||
        std::any_of(end, array.end(), [](std::byte byte) { return byte != std::byte{0}; })) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char*>(array.data()),
                       static_cast<std::size_t>(end - array.begin()));
}

[[noreturn]] void failed(const char* operation)
{
    throw std::runtime_error(std::string("the cryptographic library failed in ") + operation);
}

} // namespace

std::string toText(const SoftwareId& id)
{
    return id.number + "_" + id.revision;
}

std::optional<SoftwareId> softwareIdFrom(std::string_view text)
{
    const std::size_t split = text.find('_');
    if (split == std::string_view::npos) {
        return std::nullopt;
    }
    SoftwareId id{std::string(text.substr(0, split)), std::string(text.substr(split + 1))};
    return isValid(id) ? std::optional(std::move(id)) : std::nullopt;
}

struct Sha256::State {
    struct Free {
        void operator()(EVP_MD_CTX* unused) const { EVP_MD_CTX_free(unused); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> context{EVP_MD_CTX_new()};
};

Sha256::Sha256() : m_state(std::make_unique<State>())
{
    if (!m_state->context || EVP_DigestInit_ex(m_state->context.get(), EVP_sha256(), nullptr) != 1) {
        failed("EVP_DigestInit_ex");
    }
}

Sha256::~Sha256() = default;

void Sha256::add(std::span<const std::byte> content)
{
    if (EVP_DigestUpdate(m_state->context.get(), content.data(), content.size()) != 1) {
        failed("EVP_DigestUpdate");
    }
}

Digest Sha256::finish()
{
    Digest digest;
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(m_state->context.get(), reinterpret_cast<unsigned char*>(digest.data()), &size) !=
            1 ||
        size != digest.size()) {
        failed("EVP_DigestFinal_ex");
    }
    return digest;
}

std::array<std::byte, headerSize> encode(const Header& header)
{
    if (!isValid(header.software)) {
        throw std::invalid_argument("\"" + toText(header.software) + "\" names no load module");
    }
    std::array<std::byte, headerSize> bytes{};
    std::memcpy(bytes.data(), magic.data(), magic.size());
    putNetwork(bytes.data() + formatOffset, format);
    putNetwork(bytes.data() + lengthOffset, header.length);
    std::copy(header.digest.begin(), header.digest.end(), bytes.begin() + digestOffset);
    std::memcpy(bytes.data() + numberOffset, header.software.number.data(), header.software.number.size());
    std::memcpy(bytes.data() + revisionOffset, header.software.revision.data(),
                header.software.revision.size());
    return bytes;
}

bool hasMagic(std::span<const std::byte> bytes)
{
    return bytes.size() >= magic.size() && std::memcmp(bytes.data(), magic.data(), magic.size()) == 0;
}

DecodedHeader decode(std::span<const std::byte> bytes)
{
    if (bytes.size() < headerSize) {
        return {{},
                "it ends within the header, after " + std::to_string(bytes.size()) + " bytes of " +
                    std::to_string(headerSize)};
    }
    if (!hasMagic(bytes)) {
        return {{}, "it does not begin with " + std::string(magic)};
    }
    if (const auto found = networkAt<std::uint32_t>(bytes, formatOffset); found != format) {
        return {{}, "it has the format " + std::to_string(found) + ", not " + std::to_string(format)};
    }
    const auto number = textAt(bytes.subspan(numberOffset, maxNumberSize + 1));
    const auto revision = textAt(bytes.subspan(revisionOffset, maxRevisionSize + 1));
    if (!number || !revision || !isValid({*number, *revision})) {
        return {{}, "its header has no valid product number and revision"};
    }
    Header header{{*number, *revision}, networkAt<std::uint64_t>(bytes, lengthOffset), {}};
    std::copy_n(bytes.begin() + digestOffset, header.digest.size(), header.digest.begin());
    return {std::move(header), ""};
}

LoadModuleCheck::LoadModuleCheck(SoftwareId expected) : m_expected(std::move(expected)) {}

bool LoadModuleCheck::add(std::span<const std::byte> piece)
{
    if (!m_error.empty()) {
        return false;
    }
    if (!m_header) {
        const std::size_t taken = std::min(piece.size(), headerSize - m_headerFilled);
        std::copy_n(piece.begin(), taken,
                    m_headerBytes.begin() + static_cast<std::ptrdiff_t>(m_headerFilled));
        m_headerFilled += taken;
        piece = piece.subspan(taken);
        if (m_headerFilled < headerSize) {
            return true;
        }
        auto [header, error] = decode(m_headerBytes);
        if (!header) {
            return fail(std::move(error));
        }
        if (header->software != m_expected) {
            return fail("it is " + toText(header->software) + ", not " + toText(m_expected));
        }
        m_header = std::move(header);
    }
    if (piece.size() > m_header->length - m_contentSize) {
        return fail("it goes on after its " + std::to_string(m_header->length) + " bytes of content");
    }
    m_contentSize += piece.size();
    m_sha.add(piece);
    return true;
}

bool LoadModuleCheck::finish()
{
    if (!m_error.empty()) {
        return false;
    }
    if (!m_header) {
        return fail(decode(std::span(m_headerBytes).first(m_headerFilled)).error);
    }
    if (m_contentSize != m_header->length) {
        return fail("it ends after " + std::to_string(m_contentSize) + " of " +
                    std::to_string(m_header->length) + " bytes of content");
    }
    if (m_sha.finish() != m_header->digest) {
        return fail("its SHA-256 is not that of its header");
    }
    return true;
}

bool LoadModuleCheck::fail(std::string error)
{
    m_error = std::move(error);
    return false;
}

} // namespace merlow::loadmodule
