#include "schemas.h"

#include "bci/bciSignals.h"
#include "bmmi.pb.h"
#include "bri.pb.h"
#include "swmi.pb.h"

#include <cstdio>
#include <google/protobuf/descriptor.h>

namespace fuzz {

namespace {

Schema messagesIn(const google::protobuf::FileDescriptor& file)
{
    Schema schema;
    for (int i = 0; i < file.message_type_count(); ++i) {
        const google::protobuf::Descriptor* const type = file.message_type(i);
        if (const auto* value = type->FindEnumValueByName("MESSAGE_NUMBER")) {
            schema.push_back({static_cast<std::uint32_t>(value->number()), type, 0});
        }
    }
    return schema;
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

const Schema& briSchema()
{
    static const Schema schema =
        messagesIn(*boardresourcehandler::bri::ConnEstablishReq::descriptor()->file());
    return schema;
}

const Schema& bmmiSchema()
{
    static const Schema schema =
        messagesIn(*boardresourcehandler::bmmi::ConnEstablishReq::descriptor()->file());
    return schema;
}

const Schema& swmiSchema()
{
    static const Schema schema = messagesIn(*swm::ConnEstablishReq::descriptor()->file());
    return schema;
}

const Schema& bciSchema()
{
    static const Schema schema = [] {
        Schema rows;
        for (const BciSignal& row : BCI_SIGNALS) {
            rows.push_back({row.number, nullptr, row.size});
        }
        return rows;
    }();
    return schema;
}

std::vector<std::string> dictionary()
{
    std::vector<std::string> lines;
    for (const Schema* const schema : {&bciSchema(), &briSchema(), &bmmiSchema()}) {
        for (const SchemaMessage& message : *schema) {
            lines.push_back(entry(message.number, Order::host));
        }
    }
    for (const SchemaMessage& message : swmiSchema()) {
        lines.push_back(entry(message.number, Order::network));
    }
    return lines;
}

} // namespace fuzz
