/// JSON that a person wrote: read so that a mistake in it can be told with its line and key.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace merlow::board {

/// What is wrong, where. The text has all of it: "LINE: KEY: REASON".
class JsonMistake : public std::runtime_error {
public:
    /// `key` is the path to the value, as "restart.ranks[2]"; empty for the file as a whole.
    JsonMistake(std::size_t line, const std::string& key, const std::string& reason);
};

/// A value, with the line that it stands in.
struct JsonNode {
    std::string name;     ///< of a member; empty otherwise
    std::size_t line = 0; ///< of the value, or of its opening bracket; the first is 1
    nlohmann::json value; ///< a text, number, truth value or null; an empty object or list otherwise
    std::vector<JsonNode> children; ///< members of an object or elements of a list, in their order
};

/// Throws `JsonMistake`: for bad syntax, a member that is there twice, or values nested more than
/// `maxJsonDepth` deep.
JsonNode parseJson(const std::string& text);

constexpr std::size_t maxJsonDepth = 8;

/// An object whose members are taken one by one. A member that is left out leaves what it would have set as
/// it is. All but the constructor throw `JsonMistake` for a value that is not as described.
class JsonSection {
public:
    /// `node` lives longer. Throws when it is no object.
    JsonSection(const JsonNode& node, std::string path);

    /// The member, or null when it is left out.
    const JsonNode* take(const std::string& name);
    /// As `take`; a member that is left out is a mistake.
    const JsonNode& require(const std::string& name);
    /// Calls `read` with the object that the member is, as a section.
    template <class Read> void section(const std::string& name, Read read);
    /// Calls `read` with each element of the list that the member is, and its path. Gives whether the list is
    /// there.
    template <class Read> bool list(const std::string& name, std::size_t most, Read read);

    /// A whole number from `least` to `most`.
    template <class Number>
    void number(const std::string& name, std::int64_t least, std::int64_t most, Number& number);

    /// Throws for the first member that was never taken. To be called last.
    void finish() const;

    std::string pathOf(const std::string& name) const;
    const JsonNode& node() const { return m_node; }

private:
    const JsonNode& m_node;
    std::string m_path;
    std::vector<std::string> m_taken;
};

/// A whole number from `least` to `most`, or `JsonMistake`.
std::int64_t jsonNumber(const JsonNode& node, const std::string& path, std::int64_t least, std::int64_t most);
/// A text of at most `most` bytes without control characters, or `JsonMistake`.
std::string jsonText(const JsonNode& node, const std::string& path, std::size_t most);
/// The elements of a list of at most `most`, or `JsonMistake`.
const std::vector<JsonNode>& jsonList(const JsonNode& node, const std::string& path, std::size_t most);

template <class Read> void JsonSection::section(const std::string& name, Read read)
{
    if (const JsonNode* member = take(name)) {
        JsonSection section(*member, pathOf(name));
        read(section);
        section.finish();
    }
}

template <class Read> bool JsonSection::list(const std::string& name, std::size_t most, Read read)
{
    const JsonNode* member = take(name);
    if (member == nullptr) {
        return false;
    }
    const auto& elements = jsonList(*member, pathOf(name), most);
    for (std::size_t index = 0; index < elements.size(); ++index) {
        read(elements[index], pathOf(name) + "[" + std::to_string(index) + "]");
    }
    return true;
}

template <class Number>
void JsonSection::number(const std::string& name, std::int64_t least, std::int64_t most, Number& number)
{
    if (const JsonNode* member = take(name)) {
        number = static_cast<Number>(jsonNumber(*member, pathOf(name), least, most));
    }
}

} // namespace merlow::board
