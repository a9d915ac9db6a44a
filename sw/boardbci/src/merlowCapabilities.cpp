#include "merlowCapabilities.h"

#include "brhCapabilities.h"

#include <algorithm>

namespace {

constexpr std::uint16_t RECORD_LOADING_BLOCKS = 1;
constexpr std::uint16_t RECORD_PREINSTALLED = 8;
constexpr std::uint16_t RECORD_SW_COMP_LIST = 9;
constexpr std::uint16_t RECORDS_LOCKABLE_SW_STORE[] = {11, 12};
constexpr std::uint16_t RECORD_MARKET_PID = 25;

/// Which ids clients learn of, and what the record says beside its number.
struct BciCapabilityRow {
    CapSupport_en id;
    std::uint16_t number;
    void (*fill)(TarnBcBoardCapabilityS& record, const Capability& capability); ///< null: nothing
};

void fillText(TarnBcBoardCapabilityS& record, const Capability& capability)
{
    if (const auto* const known = dynamic_cast<const TextCapability*>(&capability)) {
        TarnBcCapabilityTextS content{};
        std::copy_n(known->text.begin(), std::min(known->text.size(), sizeof(content.text)), content.text);
        setContent(record, content);
    }
}

template <class... Values> void addSet(TarnBcParameterSetsS& content, Values... values)
{
    if (content.count < TarnBcParameterSetsS::maxSets) {
        std::uint16_t* value = content.sets[content.count++];
        ((*value++ = static_cast<std::uint16_t>(values)), ...);
    }
}

void fillTemperatureLevels(TarnBcBoardCapabilityS& record, const Capability& capability)
{
    if (const auto* const known = dynamic_cast<const TemperatureLevelMeasurement*>(&capability)) {
        TarnBcParameterSetsS content{};
        for (const auto& param : known->params) {
            addSet(content, param->upperLevel, param->lowerLevel, param->hysteresis);
        }
        setContent(record, content);
    }
}

void fillHotspots(TarnBcBoardCapabilityS& record, const Capability& capability)
{
    if (const auto* const known = dynamic_cast<const ClimateControl*>(&capability)) {
        TarnBcParameterSetsS content{};
        for (const auto& param : known->params) {
            addSet(content, param->sensor, param->threshold, param->hysteresis);
        }
        setContent(record, content);
    }
}

void fillRestartRanks(TarnBcBoardCapabilityS& record, const Capability& capability)
{
    if (const auto* const known = dynamic_cast<const RestartRankLabelSupport*>(&capability)) {
        setContent(record, TarnBcRestartRanksS{known->supportedRestartRanks});
    }
}

constexpr BciCapabilityRow BCI_CAPABILITY_ROWS[] = {
    {CAP_SUPPORT_3, 3, nullptr},
    {CAP_SUPPORT_COMMON_MMI, 7, nullptr},
    {CAP_SUPPORT_SPECIAL_INDICATOR, 23, nullptr},
    {CAP_SUPPORT_24, 24, nullptr},
    {CAP_SUPPORT_26, 29, nullptr},
    {CAP_SUPPORT_28, 32, nullptr},
    {CAP_SUPPORT_HERE_I_AM, 38, nullptr},
    {CAP_SUPPORT_TEXT, 41, fillText},
    {CAP_SUPPORT_36, 42, nullptr},
    {CAP_SUPPORT_CONTAINER_PID, 13, nullptr},
    {CAP_SUPPORT_INTEGRATED_HW_CATEGORY_1, 19, nullptr},
    {CAP_SUPPORT_MARKET_PID, RECORD_MARKET_PID, nullptr},
    {CAP_SUPPORT_NOTIFY_RESTART, 34, nullptr},
    {CAP_SUPPORT_TEMPERATURE_LEVEL_MEASUREMENT, 30, fillTemperatureLevels},
    {CAP_SUPPORT_CLIMATE_CONTROL, 6, fillHotspots},
    {CAP_SUPPORT_RESTART_NOTIFICATION, 43, nullptr},
    {CAP_SUPPORT_RESTART_RANK_LABEL, 45, fillRestartRanks},
    {CAP_SUPPORT_EVENT_HISTORY, 44, nullptr},
};

/// Null for an id that clients do not learn of.
const BciCapabilityRow* findBciCapabilityRow(CapSupport_en id)
{
    const auto* const row =
        std::find_if(std::begin(BCI_CAPABILITY_ROWS), std::end(BCI_CAPABILITY_ROWS),
                     [id](const BciCapabilityRow& candidate) { return candidate.id == id; });
    return row == std::end(BCI_CAPABILITY_ROWS) ? nullptr : row;
}

TarnBcBoardCapabilityS recordOf(std::uint16_t number)
{
    return {.capabilityNumber = number, .size = BciRecord<TarnBcBoardCapabilityS>::size, .content = {}};
}

/// The confirm with its records; empty when there is no memory for it. It has room for as many records as
/// capabilities were `gathered`, and for more where one capability made two records.
MnetMsgPtr toConfirm(TarnBcGetCapabilitiesCfmS cfm, const std::vector<TarnBcBoardCapabilityS>& records,
                     std::size_t gathered)
{
    constexpr std::size_t recordSize = BciRecord<TarnBcBoardCapabilityS>::size;
    cfm.numberOfBoardCapabilities = static_cast<std::uint16_t>(records.size());
    hton(cfm);
    MnetMsgPtr msg =
        allocMsg(sizeof(cfm) + recordSize * std::max(gathered, records.size()), TARN_BC_GET_CAPABILITIES_CFM);
    if (msg) {
        auto* to = reinterpret_cast<unsigned char*>(msg.get());
        std::memcpy(to, &cfm, sizeof(cfm));
        to += sizeof(cfm);
        for (TarnBcBoardCapabilityS record : records) {
            hton(record);
            std::memcpy(to, &record, recordSize);
            to += recordSize;
        }
    }
    return msg;
}

} // namespace

bool MerlowCapabilities::init()
{
    onSignal(TARN_BC_GET_CAPABILITIES_REQ, &MerlowCapabilities::handleGetCapabilitiesReq);
    return true;
}

void MerlowCapabilities::handleGetCapabilitiesReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcGetCapabilitiesReqS>(*msg);
    if (!req) {
        return;
    }
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    const int serverRef = req->addressInfo.serverRef;
    SwayCapabilities swayCapabilities;
    m_commonData.getSwmiClient().getCapabilities(swayCapabilities);
    const Capabilities boardCapabilities = getBoardCapabilities(serverRef);
    const std::size_t gathered = swayCapabilities.size() + boardCapabilities.size();

    Records records;
    addSwayRecords(records, swayCapabilities, client);
    addBoardRecords(records, boardCapabilities, serverRef);
    SCRY_TRACE(4, "MerlowCapabilities:handleGetCapabilitiesReq() collected " << records.size() << " out of "
                                                                             << gathered << " capabilities");
    sendToClient(client, toConfirm(answerTo<TarnBcGetCapabilitiesCfmS>(req->addressInfo), records, gathered));
}

MerlowCapabilities::Capabilities MerlowCapabilities::getBoardCapabilities(int serverRef) const
{
    Capabilities capabilities;
    getCapabilitiesV2(capabilities, serverRef,
                      {CAP_SUPPORT_2, CAP_SUPPORT_3, CAP_SUPPORT_22, CAP_SUPPORT_24, CAP_SUPPORT_26,
                       CAP_SUPPORT_28, CAP_SUPPORT_32, CAP_SUPPORT_33, CAP_SUPPORT_TEXT, CAP_SUPPORT_36});
    m_commonData.getBriClient().getCapabilities(capabilities);
    m_commonData.getBmmiClient().getCapabilities(capabilities);
    return capabilities;
}

void MerlowCapabilities::addSwayRecords(Records& records, const SwayCapabilities& capabilities,
                                        mnet_mbox_id_t client) const
{
    const BcSession* const session = m_commonData.getClientSession(client);
    for (const auto& capability : capabilities) {
        switch (capability->id) {
        case SWAYCapability::PREINSTALLED:
            records.push_back(recordOf(RECORD_PREINSTALLED));
            break;
        case SWAYCapability::SW_COMP_LIST:
            records.push_back(recordOf(RECORD_SW_COMP_LIST));
            break;
        case SWAYCapability::LOCKABLE_RESOURCE_SW_STORE:
            if (session == nullptr || session->protocolRev != 1) {
                for (const std::uint16_t number : RECORDS_LOCKABLE_SW_STORE) {
                    records.push_back(recordOf(number));
                }
            }
            break;
        case SWAYCapability::LOADING_BLOCK_SIZE: {
            const auto blockSize = static_cast<const SWAYCapLoadingBlockSize&>(*capability).blockSize;
            records.push_back(recordOf(RECORD_LOADING_BLOCKS));
            setContent(records.back(),
                       TarnBcLoadingBlocksS{.values = {1, 1, 0},
                                            .unset6 = 0,
                                            .blockSize = static_cast<std::uint32_t>(blockSize)});
            break;
        }
        default: // clients learn of no other
            break;
        }
    }
}

void MerlowCapabilities::addBoardRecords(Records& records, const Capabilities& capabilities,
                                         int serverRef) const
{
    const ProductInfo& product = m_commonData.getProductInfoCache();
    const bool isGsmOfKpx = isGsmServerRef(serverRef) && product.isComplete && product.isKpx();
    for (const auto& capability : capabilities) {
        const BciCapabilityRow* const row = findBciCapabilityRow(capability->id);
        if (row == nullptr || (row->number == RECORD_MARKET_PID && isGsmOfKpx)) {
            continue;
        }
        records.push_back(recordOf(row->number));
        if (row->fill != nullptr) {
            row->fill(records.back(), *capability);
        }
    }
}
