/// What bcictl tells: lines for people, or one JSON object a line.
#pragma once

#include "bciClient.h"

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

namespace merlow::bcictl {

using Fields = nlohmann::ordered_json;

/// Results go to `out`, failures to `err`; as JSON everything goes to `out`. Each line is complete and out
/// at once, so that a pipe's reader sees it when it happens.
class Output {
public:
    struct Style {
        bool json = false;
        bool verbose = false; ///< signal names in front of each line for people
    };

    Output(std::ostream& out, std::ostream& err, Style style) : m_out(out), m_err(err), m_style(style) {}

    /// What command is reported on from here on.
    void setCommand(const std::string& name) { m_command = name; }

    /// A request `sent` that was answered by `answer`. `text` is for people; `fields` join the JSON object.
    void done(std::uint32_t sent, const tools::Signal& answer, const std::string& text, const Fields& fields);
    void failed(std::uint32_t sent, const tools::Failure& failure);
    /// A command line that makes no sense.
    void misused(const std::string& text);
    void help(const std::string& text);
    void connected(const TarnNodeCommonAddressInfoS& references);
    void indication(const tools::Signal& signal);

private:
    void printObject(const Fields& object);
    [[nodiscard]] std::string names(std::uint32_t sent, std::uint32_t answer) const;

    std::ostream& m_out;
    std::ostream& m_err;
    Style m_style;
    std::string m_command;
};

/// A signal for people: name, size and references in one line, then what follows the references as a hex
/// view; ends with a newline only behind a view.
std::string describeSignal(const tools::Signal& signal);

/// The same as members of a JSON object.
Fields fieldsOf(const tools::Signal& signal);

} // namespace merlow::bcictl
