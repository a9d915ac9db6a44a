#include "dictionary.h"

#include "bci/bciSignals.h"
#include "bmmi.pb.h"
#include "bri.pb.h"
#include "swmi.pb.h"

#include <cstdio>
#include <google/protobuf/descriptor.h>

namespace fuzz {

namespace {

std::vector<std::uint32_t> numbersIn(const google::protobuf::FileDescriptor& schema)
{
    std::vector<std::uint32_t> numbers;
    for (int i = 0; i < schema.message_type_count(); ++i) {
        if (const auto* value = schema.message_type(i)->FindEnumValueByName("MESSAGE_NUMBER")) {
            numbers.push_back(static_cast<std::uint32_t>(value->number()));
        }
    }
    return numbers;
}

enum class Order : std::uint8_t { host, network };

std::string entry(std::uint32_t number, Order order)
{
    std::string line = "\"";
    for (unsigned int i = 0; i < 4; ++i) {
        const unsigned int shift = 8 * (order == Order::host ? i : 3 - i);
        char digits[8];
        (void)std::snprintf(digits, sizeof(digits), "\\x%02x", number >> shift & 0xFFU);
        line += digits;
    }
    return line += '"';
}

} // namespace

std::vector<std::uint32_t> briNumbers()
{
    return numbersIn(*boardresourcehandler::bri::ConnEstablishReq::descriptor()->file());
}

std::vector<std::uint32_t> bmmiNumbers()
{
    return numbersIn(*boardresourcehandler::bmmi::ConnEstablishReq::descriptor()->file());
}

std::vector<std::uint32_t> swmiNumbers()
{
    return numbersIn(*swm::ConnEstablishReq::descriptor()->file());
}

std::vector<std::string> dictionary()
{
    std::vector<std::string> lines;
    for (const BciSignal& signal : BCI_SIGNALS) {
        lines.push_back(entry(signal.number, Order::host));
    }
    for (const auto& numbers : {briNumbers(), bmmiNumbers()}) {
        for (const std::uint32_t number : numbers) {
            lines.push_back(entry(number, Order::host));
        }
    }
    for (const std::uint32_t number : swmiNumbers()) {
        lines.push_back(entry(number, Order::network));
    }
    return lines;
}

} // namespace fuzz
