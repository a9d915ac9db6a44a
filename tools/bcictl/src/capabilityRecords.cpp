#include "capabilityRecords.h"

#include "bci/bciCapabilities.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

namespace merlow::bcictl {

namespace {

using tools::Fields;
using tools::Signal;
using Records = std::vector<TarnBcBoardCapabilityS>;

Told tellBlocks(const TarnBcBoardCapabilityS& record)
{
    const auto content = contentOf<TarnBcLoadingBlocksS>(record);
    const auto& values = content.values;
    char text[64];
    (void)std::snprintf(text, sizeof(text), "%u bytes, values %u, %u, %u", content.blockSize, values[0],
                        values[1], values[2]);
    return {text, {{"blockSize", content.blockSize}, {"values", values}}};
}

/// Parameter sets, their three values by these names.
Told tellSets(const TarnBcBoardCapabilityS& record, const std::array<const char*, 3>& names)
{
    const auto content = contentOf<TarnBcParameterSetsS>(record);
    const auto count = std::min<std::size_t>(content.count, TarnBcParameterSetsS::maxSets);
    Told told{"", {{"sets", Fields::array()}}};
    for (std::size_t i = 0; i < count; ++i) {
        Fields set = Fields::object();
        for (std::size_t j = 0; j < names.size(); ++j) {
            const auto value = static_cast<std::int16_t>(content.sets[i][j]);
            set[names[j]] = value;
            told.text += (j != 0   ? ", "
                          : i != 0 ? "; "
                                   : "") +
                         std::string(names[j]) + " " + std::to_string(value);
        }
        told.fields["sets"].push_back(set);
    }
    return told;
}

Told tellHotspots(const TarnBcBoardCapabilityS& record)
{
    return tellSets(record, {"sensor", "threshold", "hysteresis"});
}

Told tellLevels(const TarnBcBoardCapabilityS& record)
{
    return tellSets(record, {"upper", "lower", "hysteresis"});
}

Told tellText(const TarnBcBoardCapabilityS& record)
{
    const auto content = contentOf<TarnBcCapabilityTextS>(record);
    const auto text = tools::textOf(content.text);
    return {"\"" + text + "\"", {{"text", text}}};
}

Told tellRanks(const TarnBcBoardCapabilityS& record)
{
    const auto mask = contentOf<TarnBcRestartRanksS>(record).mask;
    char text[16];
    (void)std::snprintf(text, sizeof(text), "mask 0x%x", mask);
    return {text, {{"mask", mask}}};
}

struct NamedCapability {
    std::uint16_t number;
    const char* name;
    Told (*tell)(const TarnBcBoardCapabilityS& record); ///< null: the record says no more
};

constexpr NamedCapability namedCapabilities[] = {
    {1, "loading in blocks", tellBlocks},
    {3, "platform capability", nullptr},
    {6, "hot spots", tellHotspots},
    {7, "common MMI", nullptr},
    {8, "preinstalled software", nullptr},
    {9, "software component list", nullptr},
    {11, "lockable software store", nullptr},
    {12, "lockable software store", nullptr},
    {13, "container identity", nullptr},
    {19, "integrated hardware, category 1", nullptr},
    {23, "special indicator", nullptr},
    {24, "platform capability", nullptr},
    {25, "market name", nullptr},
    {29, "platform capability", nullptr},
    {30, "temperature levels", tellLevels},
    {32, "platform capability", nullptr},
    {34, "restart announcement", nullptr},
    {38, "Here I Am", nullptr},
    {41, "platform text", tellText},
    {42, "platform capability", nullptr},
    {43, "restart notification", nullptr},
    {44, "event history", nullptr},
    {45, "restart ranks", tellRanks},
};

void tellRecord(Told& told, const TarnBcBoardCapabilityS& record)
{
    const auto* const known =
        std::find_if(std::begin(namedCapabilities), std::end(namedCapabilities),
                     [&record](const auto& row) { return row.number == record.capabilityNumber; });
    const bool isKnown = known != std::end(namedCapabilities);
    const char* const name = isKnown ? known->name : "unknown";
    char line[64];
    (void)std::snprintf(line, sizeof(line), "\n  %3u  %s", record.capabilityNumber, name);
    told.text += line;
    Fields fields{{"number", record.capabilityNumber}, {"name", name}};
    if (isKnown && known->tell != nullptr) {
        const Told content = known->tell(record);
        told.text += content.text.empty() ? "" : ": " + content.text;
        fields.update(content.fields);
    }
    told.fields["capabilities"].push_back(fields);
}

/// Nothing when the signal does not hold the records that it announces.
std::optional<Records> recordsIn(const Signal& signal)
{
    constexpr std::size_t headerSize = BciRecord<TarnBcGetCapabilitiesCfmS>::size;
    constexpr std::size_t recordSize = BciRecord<TarnBcBoardCapabilityS>::size;
    const auto header = tools::decode<TarnBcGetCapabilitiesCfmS>(signal);
    if (!header || (signal.bytes.size() - headerSize) / recordSize < header->numberOfBoardCapabilities) {
        return std::nullopt;
    }
    Records records(header->numberOfBoardCapabilities);
    const auto* from = signal.bytes.data() + headerSize;
    for (auto& record : records) {
        std::memcpy(&record, from, recordSize);
        ntoh(record);
        if (record.size != recordSize) {
            return std::nullopt;
        }
        from += recordSize;
    }
    return records;
}

} // namespace

std::optional<Told> decodeCapabilities(const Signal& signal)
{
    const auto records = recordsIn(signal);
    if (!records) {
        return std::nullopt;
    }
    Told told{std::to_string(records->size()) + (records->size() == 1 ? " capability" : " capabilities"),
              {{"capabilities", Fields::array()}}};
    for (const auto& record : *records) {
        tellRecord(told, record);
    }
    return told;
}

} // namespace merlow::bcictl
