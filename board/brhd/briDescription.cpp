#include "briDescription.h"

#include <array>

namespace merlow::board {

namespace bri = boardresourcehandler::bri;

namespace {

/// The bit of each rank, from 1 on. The last two are as clients expect them.
constexpr std::array<unsigned, 5> rankBits{0, 1, 2, 4, 3};

template <class Set> void setIfTold(const BoardText& text, Set set)
{
    if (text) {
        set(*text);
    }
}

/// The texts that a unit and a container have alike.
template <class Data, class Message> void setSharedTexts(const Data& data, Message& message)
{
    setIfTold(data.productionDate, [&](const auto& text) { message.set_production_date(text); });
    setIfTold(data.number, [&](const auto& text) { message.set_product_number(text); });
    setIfTold(data.revision, [&](const auto& text) { message.set_product_revision(text); });
    setIfTold(data.manufacturer, [&](const auto& text) { message.set_manufacturer(text); });
    setIfTold(data.serialNumber, [&](const auto& text) { message.set_serial_number(text); });
}

} // namespace

bri::GetCapabilitiesCfm briCapabilitiesOf(const BoardDescription& board)
{
    bri::GetCapabilitiesCfm capabilities;
    for (const std::uint32_t value : board.bri.capabilities) {
        capabilities.add_capabilities(static_cast<bri::GetCapabilitiesCfm::CapabilityType>(value));
    }
    for (const TemperatureRange& range : board.bri.temperatureRanges) {
        auto* param = capabilities.add_temperature_level_measurement_params();
        param->set_lower_level(range.lower);
        param->set_upper_level(range.upper);
        param->set_hysteresis(range.hysteresis);
    }
    for (const Hotspot& hotspot : board.bri.hotspots) {
        auto* param = capabilities.add_hotspot_params();
        param->set_sensor(hotspot.sensor);
        param->set_threshold(hotspot.threshold);
        param->set_hysteresis(hotspot.hysteresis);
    }
    std::uint32_t ranks = 0;
    for (const std::uint32_t rank : board.restart.ranks) {
        ranks |= 1U << rankBits.at(rank - 1);
    }
    capabilities.set_supported_restart_ranks(ranks);
    return capabilities;
}

bri::GetProductInfoCfm productOf(const ProductData& data)
{
    bri::GetProductInfoCfm product;
    setIfTold(data.extendedMarketName, [&](const auto& text) { product.set_extended_market_name(text); });
    setIfTold(data.name, [&](const auto& text) { product.set_product_name(text); });
    setSharedTexts(data, product);
    return product;
}

bri::GetContainerPidCfm containerOf(const ContainerData& data)
{
    bri::GetContainerPidCfm container;
    setIfTold(data.name, [&](const auto& text) { container.set_container_name(text); });
    setSharedTexts(data, container);
    return container;
}

} // namespace merlow::board
