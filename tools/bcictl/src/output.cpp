#include "output.h"

#include "hex.h"

#include <array>
#include <string_view>

namespace merlow::bcictl {

namespace {

using tools::ExitStatus;
using tools::signalName;

std::string_view nameOf(ExitStatus status)
{
    constexpr std::array<std::string_view, 5> names{"done", "rejected", "usage", "noAnswer", "noUnit"};
    return names.at(static_cast<std::size_t>(status));
}

void add(Fields& object, const Fields& more)
{
    for (const auto& [key, value] : more.items()) {
        object[key] = value;
    }
}

void addReferences(Fields& object, const TarnNodeCommonAddressInfoS& references)
{
    object["clientRef"] = references.clientRef;
    object["serverRef"] = references.serverRef;
}

std::string textOf(const TarnNodeCommonAddressInfoS& references)
{
    return "clientRef " + std::to_string(references.clientRef) + ", serverRef " +
           std::to_string(references.serverRef);
}

std::string withNewline(const std::string& text)
{
    return text.ends_with('\n') ? text : text + '\n';
}

} // namespace

void Output::done(std::uint32_t sent, const tools::Signal& answer, const std::string& text,
                  const Fields& fields)
{
    if (!m_style.json) {
        m_out << names(sent, answer.number()) << withNewline(text) << std::flush;
        return;
    }
    Fields object{{"command", m_command},
                  {"status", nameOf(ExitStatus::done)},
                  {"sent", signalName(sent)},
                  {"answer", signalName(answer.number())}};
    addReferences(object, answer.addressInfo());
    add(object, fields);
    printObject(object);
}

void Output::failed(std::uint32_t sent, const tools::Failure& failure)
{
    if (!m_style.json) {
        m_err << "bcictl: " << (m_command.empty() ? "" : m_command + ": ") << names(sent, failure.answer)
              << failure.text;
        if (failure.rejection) {
            m_err << ", errorCode " << failure.rejection->errorCode << ": "
                  << failure.rejection->errorDescription;
        }
        m_err << std::endl;
        return;
    }
    Fields object{{"command", m_command}, {"status", nameOf(failure.status)}, {"sent", signalName(sent)}};
    if (failure.answer != 0) {
        object["answer"] = signalName(failure.answer);
    }
    if (failure.rejection) {
        object["errorCode"] = failure.rejection->errorCode;
        object["errorDescription"] = failure.rejection->errorDescription;
    } else {
        object["error"] = failure.text;
    }
    printObject(object);
}

void Output::misused(const std::string& text)
{
    if (!m_style.json) {
        m_err << "bcictl: " << withNewline(text) << std::flush;
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

void Output::connected(const TarnNodeCommonAddressInfoS& references)
{
    if (!m_style.json) {
        m_out << names(TARN_BC_CONN_ESTABLISH_REQ, TARN_BC_CONN_ESTABLISH_CFM) << "connected, "
              << textOf(references) << std::endl;
        return;
    }
    Fields object{{"event", "connected"}};
    addReferences(object, references);
    printObject(object);
}

void Output::indication(const tools::Signal& signal)
{
    if (!m_style.json) {
        m_out << "indication " << withNewline(describeSignal(signal)) << std::flush;
        return;
    }
    Fields object{{"event", "indication"}, {"signal", signalName(signal.number())}};
    add(object, fieldsOf(signal));
    printObject(object);
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

std::string describeSignal(const tools::Signal& signal)
{
    const auto size = signal.bytes.size();
    std::string text = signalName(signal.number()) + ", " + std::to_string(size) + " bytes";
    if (size < 12) {
        return text + ", too short for its references\n" + tools::hexView(signal.bytes);
    }
    text += ", " + textOf(signal.addressInfo());
    if (!signal.fields().empty()) {
        text += "\n" + tools::hexView(signal.fields());
    }
    return text;
}

Fields fieldsOf(const tools::Signal& signal)
{
    Fields object{{"number", signal.number()}, {"size", signal.bytes.size()}};
    addReferences(object, signal.addressInfo());
    object["hex"] = tools::toHex(signal.fields());
    return object;
}

} // namespace merlow::bcictl
