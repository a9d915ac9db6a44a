#include "jsonFile.h"

#include "message.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace merlow::board {

namespace {

using nlohmann::json;

/// Counts what the parser has read, so that its events can be placed in lines.
class CountingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountingIterator(const char* at, std::size_t* count) : m_at(at), m_count(count) {}

    reference operator*() const { return *m_at; }
    CountingIterator& operator++()
    {
        ++m_at;
        ++*m_count;
        return *this;
    }
    CountingIterator operator++(int)
    {
        CountingIterator old = *this;
        ++*this;
        return old;
    }
    bool operator==(const CountingIterator& other) const { return m_at == other.m_at; }
    bool operator!=(const CountingIterator& other) const { return m_at != other.m_at; }

private:
    const char* m_at;
    std::size_t* m_count;
};

/// "at line 3, column 5: syntax error while ...": what the parser says behind its own name and the place.
std::string reasonOf(const std::string& parserText)
{
    const std::size_t place = parserText.find("column ");
    const std::size_t reason = parserText.find(": ", place == std::string::npos ? 0 : place);
    return reason == std::string::npos ? parserText : parserText.substr(reason + 2);
}

/// Builds the tree from the parser's events. The open containers are pointed at safely: a container's list of
/// children grows only while none of these is open.
class TreeBuilder : public nlohmann::json_sax<json> {
public:
    TreeBuilder(const std::string& text, const std::size_t& count) : m_text(text), m_count(count) {}

    JsonNode take() { return std::move(m_root); }

    bool null() override { return scalar(nullptr); }
    bool boolean(bool value) override { return scalar(value); }
    bool number_integer(number_integer_t value) override { return scalar(value); }
    bool number_unsigned(number_unsigned_t value) override { return scalar(value); }
    bool number_float(number_float_t value, const string_t& /*spelling*/) override { return scalar(value); }
    bool string(string_t& value) override { return scalar(std::move(value)); }
    bool binary(binary_t& /*value*/) override { return false; } // no such thing in a text
    bool start_object(std::size_t /*size*/) override { return open(json::object()); }
    bool start_array(std::size_t /*size*/) override { return open(json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t& name) override
    {
        for (const JsonNode& sibling : m_open.back()->children) {
            if (sibling.name == name) {
                m_name = name;
                throw JsonMistake(line(), path(),
                                  "is there twice, first in line " + std::to_string(sibling.line));
            }
        }
        m_name = std::move(name);
        return true;
    }

    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& exception) override
    {
        throw JsonMistake(line(), path(), reasonOf(exception.what()));
    }

private:
    /// Of the token in hand. Behind a number the parser has read one character more.
    std::size_t line() const
    {
        const auto begin = m_text.begin();
        const std::size_t before = std::min(m_count, m_text.size());
        return 1 + static_cast<std::size_t>(std::count(
                       begin, begin + static_cast<std::ptrdiff_t>(before > 0 ? before - 1 : 0), '\n'));
    }

    /// Of the value in hand; between two members that of the former.
    std::string path() const
    {
        std::string path;
        for (std::size_t depth = 1; depth <= m_open.size(); ++depth) {
            const JsonNode& container = *m_open[depth - 1];
            if (container.value.is_array()) {
                path +=
                    "[" + std::to_string(container.children.size() - (depth < m_open.size() ? 1 : 0)) + "]";
            } else {
                const bool inner = depth < m_open.size();
                const bool between = !inner && m_name.empty() && !container.children.empty();
                const std::string& name = inner     ? m_open[depth]->name
                                          : between ? container.children.back().name
                                                    : m_name;
                path += (path.empty() || name.empty() ? "" : ".") + name;
            }
        }
        return path;
    }

    JsonNode& add(json value)
    {
        JsonNode node{std::exchange(m_name, {}), line(), std::move(value), {}};
        if (m_open.empty()) {
            m_root = std::move(node);
            return m_root;
        }
        m_open.back()->children.push_back(std::move(node));
        return m_open.back()->children.back();
    }

    bool scalar(json value)
    {
        add(std::move(value));
        return true;
    }

    bool open(json container)
    {
        if (m_open.size() == maxJsonDepth) {
            throw JsonMistake(line(), path(), "is nested too deep");
        }
        m_open.push_back(&add(std::move(container)));
        return true;
    }

    bool close()
    {
        m_open.pop_back();
        return true;
    }

    const std::string& m_text;
    const std::size_t& m_count;
    JsonNode m_root;
    std::vector<JsonNode*> m_open;
    std::string m_name; ///< of the member whose value comes
};

std::string spelled(const JsonNode& node)
{
    if (node.value.is_object()) {
        return "an object";
    }
    if (node.value.is_array()) {
        return "a list";
    }
    constexpr std::size_t longest = 40;
    const std::string text = node.value.dump(-1, ' ', true);
    return text.size() > longest ? text.substr(0, longest) + "..." : text;
}

[[noreturn]] void refuse(const JsonNode& node, const std::string& path, const std::string& wanted)
{
    throw JsonMistake(node.line, path, "must be " + wanted + ", not " + spelled(node));
}

} // namespace

JsonMistake::JsonMistake(std::size_t line, const std::string& key, const std::string& reason)
    : std::runtime_error(std::to_string(line) + ": " + (key.empty() ? "" : key + ": ") + reason)
{
}

JsonNode parseJson(const std::string& text)
{
    std::size_t count = 0;
    TreeBuilder builder(text, count);
    json::sax_parse(CountingIterator(text.data(), &count),
                    CountingIterator(text.data() + text.size(), &count), &builder);
    return builder.take();
}

JsonSection::JsonSection(const JsonNode& node, std::string path) : m_node(node), m_path(std::move(path))
{
    if (!node.value.is_object()) {
        refuse(node, m_path, "an object");
    }
}

const JsonNode* JsonSection::take(const std::string& name)
{
    m_taken.push_back(name);
    const auto found = std::find_if(m_node.children.begin(), m_node.children.end(),
                                    [&](const JsonNode& member) { return member.name == name; });
    return found == m_node.children.end() ? nullptr : &*found;
}

const JsonNode& JsonSection::require(const std::string& name)
{
    const JsonNode* member = take(name);
    if (member == nullptr) {
        throw JsonMistake(m_node.line, pathOf(name), "is missing");
    }
    return *member;
}

void JsonSection::finish() const
{
    for (const JsonNode& member : m_node.children) {
        if (std::find(m_taken.begin(), m_taken.end(), member.name) == m_taken.end()) {
            throw JsonMistake(member.line, pathOf(member.name),
                              "is no known key; there are " + commaList(m_taken));
        }
    }
}

std::string JsonSection::pathOf(const std::string& name) const
{
    return m_path.empty() ? name : m_path + "." + name;
}

std::int64_t jsonNumber(const JsonNode& node, const std::string& path, std::int64_t least, std::int64_t most)
{
    const json& value = node.value;
    const bool whole = value.is_number_integer() && (!value.is_number_unsigned() ||
                                                     value.get<std::uint64_t>() <= std::uint64_t{INT64_MAX});
    if (!whole || value.get<std::int64_t>() < least || value.get<std::int64_t>() > most) {
        refuse(node, path, "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return value.get<std::int64_t>();
}

std::string jsonText(const JsonNode& node, const std::string& path, std::size_t most)
{
    if (!node.value.is_string()) {
        refuse(node, path, "a text");
    }
    auto text = node.value.get<std::string>();
    if (text.size() > most) {
        throw JsonMistake(node.line, path,
                          "is a text of " + std::to_string(text.size()) + " bytes, at most " +
                              std::to_string(most) + " are possible");
    }
    if (std::any_of(text.begin(), text.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; })) {
        throw JsonMistake(node.line, path, "holds a control character");
    }
    return text;
}

const std::vector<JsonNode>& jsonList(const JsonNode& node, const std::string& path, std::size_t most)
{
    if (!node.value.is_array()) {
        refuse(node, path, "a list");
    }
    if (node.children.size() > most) {
        throw JsonMistake(node.line, path,
                          "has " + std::to_string(node.children.size()) + " entries, at most " +
                              std::to_string(most) + " are possible");
    }
    return node.children;
}

} // namespace merlow::board
