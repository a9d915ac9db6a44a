/// What a client program tells: lines for people, or one JSON object a line.
#pragma once

#include "unitClient.h"

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

namespace merlow::tools {

using Fields = nlohmann::ordered_json;

/// Results go to `out`, failures to `err`; as JSON everything goes to `out`. Each line is complete and out
/// at once, so that a pipe's reader sees it when it happens.
class Output {
public:
    struct Style {
        const char* program = ""; ///< in front of each failure
        bool json = false;
        bool verbose = false;  ///< signal names in front of each line for people
        bool terminal = false; ///< results go to a terminal
    };

    Output(std::ostream& out, std::ostream& err, Style style) : m_out(out), m_err(err), m_style(style) {}

    /// What command is reported on from here on.
    void setCommand(const std::string& name) { m_command = name; }

    /// A signal `sent` that was answered by `answer`, 0 for one that has no answer. `text` is for people;
    /// `fields` join the JSON object.
    void done(std::uint32_t sent, std::uint32_t answer, const std::string& text, const Fields& fields);
    void failed(std::uint32_t sent, const Failure& failure);
    /// A command line that makes no sense.
    void misused(const std::string& text);
    void help(const std::string& text);
    /// Something that no command asked for.
    void event(const char* name, const std::string& text, const Fields& fields);

    /// False once a result did not get out.
    [[nodiscard]] bool isWritable() const { return m_out.good(); }

    /// A line, or several, that what is told next replaces; only for people at a terminal.
    void transient(const std::string& text);
    /// Whether transients show.
    [[nodiscard]] bool isTerminal() const { return m_style.terminal && !m_style.json; }

    /// "SENT -> ANSWER: " when signals are to be named, else nothing.
    [[nodiscard]] std::string names(std::uint32_t sent, std::uint32_t answer) const;

    /// "SIGNAL: " when signals are to be named, else nothing.
    [[nodiscard]] std::string names(std::uint32_t signal) const;

private:
    void printObject(const Fields& object);
    void clearTransient();
    void rewindTransient();

    std::ostream& m_out;
    std::ostream& m_err;
    Style m_style;
    std::string m_command;
    bool m_hasTransient = false;
    std::size_t m_transientNewlines = 0;
};

} // namespace merlow::tools
