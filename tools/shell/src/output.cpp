#include "output.h"

#include "bciDecode.h"

#include <array>
#include <string_view>

namespace merlow::tools {

namespace {

std::string_view nameOf(ExitStatus status)
{
    constexpr std::array<std::string_view, 5> names{"done", "rejected", "usage", "noAnswer", "noUnit"};
    return names.at(static_cast<std::size_t>(status));
}

constexpr char eraseRestOfLine[] = "\x1b[K";
constexpr char eraseRestOfScreen[] = "\x1b[J";

std::string withNewline(const std::string& text)
{
    return text.ends_with('\n') ? text : text + '\n';
}

} // namespace

void Output::done(std::uint32_t sent, std::uint32_t answer, const std::string& text, const Fields& fields)
{
    clearTransient();
    if (!m_style.json) {
        m_out << names(sent, answer) << withNewline(text) << std::flush;
        return;
    }
    Fields object{{"command", m_command}, {"status", nameOf(ExitStatus::done)}, {"sent", signalName(sent)}};
    if (answer != 0) {
        object["answer"] = signalName(answer);
    }
    object.update(fields);
    printObject(object);
}

void Output::failed(std::uint32_t sent, const Failure& failure)
{
    clearTransient();
    if (!m_style.json) {
        m_err << m_style.program << ": " << (m_command.empty() ? "" : m_command + ": ")
              << names(sent, failure.answer) << failure.text;
        if (failure.rejection) {
            m_err << ", errorCode " << failure.rejection->errorCode << ": "
                  << failure.rejection->errorDescription;
        }
        m_err << std::endl;
        return;
    }
    Fields object{{"command", m_command}, {"status", nameOf(failure.status)}};
    if (sent != 0) {
        object["sent"] = signalName(sent);
    }
    if (failure.answer != 0) {
        object["answer"] = signalName(failure.answer);
    }
    object["error"] = failure.text;
    if (failure.rejection) {
        object["errorCode"] = failure.rejection->errorCode;
        object["errorDescription"] = failure.rejection->errorDescription;
    }
    printObject(object);
}

void Output::misused(const std::string& text)
{
    clearTransient();
    if (!m_style.json) {
        m_err << m_style.program << ": " << withNewline(text) << std::flush;
        return;
    }
    printObject({{"status", nameOf(ExitStatus::usage)}, {"error", text}});
}

void Output::help(const std::string& text)
{
    if (m_style.json) {
        printObject({{"help", text}});
        return;
    }
    m_out << withNewline(text) << std::flush;
}

void Output::event(const char* name, const std::string& text, const Fields& fields)
{
    clearTransient();
    if (!m_style.json) {
        m_out << withNewline(text) << std::flush;
        return;
    }
    Fields object{{"event", name}};
    object.update(fields);
    printObject(object);
}

void Output::transient(const std::string& text)
{
    if (!isTerminal()) {
        return;
    }
    rewindTransient();
    std::size_t newlines = 0;
    for (const char c : text) {
        if (c == '\n') {
            m_out << eraseRestOfLine;
            ++newlines;
        }
        m_out << c;
    }
    m_out << (newlines < m_transientNewlines ? eraseRestOfScreen : eraseRestOfLine) << std::flush;
    m_hasTransient = true;
    m_transientNewlines = newlines;
}

void Output::clearTransient()
{
    if (m_hasTransient) {
        rewindTransient();
        m_out << (m_transientNewlines != 0 ? eraseRestOfScreen : eraseRestOfLine) << std::flush;
        m_hasTransient = false;
        m_transientNewlines = 0;
    }
}

/// To where the transient that stands begins.
void Output::rewindTransient()
{
    m_out << '\r';
    if (m_transientNewlines != 0) {
        m_out << "\x1b[" << m_transientNewlines << 'A';
    }
}

void Output::printObject(const Fields& object)
{
    m_out << object.dump(-1, ' ', false, Fields::error_handler_t::replace) << std::endl;
}

std::string Output::names(std::uint32_t sent, std::uint32_t answer) const
{
    if (!m_style.verbose || sent == 0) {
        return {};
    }
    return signalName(sent) + " -> " + (answer != 0 ? signalName(answer) : "nothing") + ": ";
}

std::string Output::names(std::uint32_t signal) const
{
    return m_style.verbose ? signalName(signal) + ": " : std::string();
}

} // namespace merlow::tools
