// Any signal, with whatever follows its references.

#include "groups.h"

#include "hex.h"

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;

/// The envelope of a signal that no record describes.
struct EnvelopeS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
};

MnetMsgPtr makeSignal(std::uint32_t number, TarnNodeCommonAddressInfoS references,
                      const std::vector<std::uint8_t>& fields)
{
    auto msg = allocMsg(sizeof(EnvelopeS) + fields.size(), number);
    if (msg) {
        Bci::swapOrder(references);
        const EnvelopeS envelope{number, references};
        auto* const start = reinterpret_cast<std::uint8_t*>(msg.get());
        std::memcpy(start, &envelope, sizeof(envelope));
        if (!fields.empty()) {
            std::memcpy(start + sizeof(envelope), fields.data(), fields.size());
        }
    }
    return msg;
}

class Raw : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.addOption("NUMBER", m_number, "Decimal, hexadecimal after 0x, or the signal's name")
            .required()
            .check([](const std::string& text) {
                return tools::parseSignalNumber(text) ? std::string() : "no signal number: " + text;
            });
        app.addOption("HEX", m_hex,
                      "What follows the references, in hexadecimal; blanks between bytes are free")
            .check([](const std::string& text) {
                return tools::parseHex(text) ? std::string() : "no pairs of hexadecimal digits: " + text;
            });
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        const auto number = tools::parseSignalNumber(m_number).value_or(0);
        std::vector<std::uint8_t> fields;
        for (const auto& word : m_hex) {
            const auto bytes = tools::parseHex(word).value_or(std::vector<std::uint8_t>{});
            fields.insert(fields.end(), bytes.begin(), bytes.end());
        }
        const auto answer = client.request(makeSignal(number, client.references(), fields), {});
        if (const auto* const failure = std::get_if<tools::Failure>(&answer)) {
            output.failed(number, *failure);
            return failure->status;
        }
        const auto& signal = std::get<tools::Signal>(answer);
        output.done(number, signal.number(), describeSignal(signal),
                    withReferences(signal.addressInfo(), fieldsOf(signal)));
        return ExitStatus::done;
    }

private:
    std::string m_number;
    std::vector<std::string> m_hex;
};

} // namespace

std::unique_ptr<Command> makeRaw()
{
    return std::make_unique<Raw>();
}

} // namespace merlow::bcictl
