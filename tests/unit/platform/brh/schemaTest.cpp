// The schemas against literal tables: each message number, field, type, label, default and value of an
// enumeration, and nothing besides.

#include "bmmi.pb.h"
#include "bri.pb.h"
#include "schemaTable.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace bri = boardresourcehandler::bri;
namespace bmmi = boardresourcehandler::bmmi;

namespace {

using support::expectSchema;
using support::inside;
using Row = support::SchemaRow;

std::string briType(const std::string& name)
{
    return "boardresourcehandler.bri." + name;
}

std::string bmmiType(const std::string& name)
{
    return "boardresourcehandler.bmmi." + name;
}

/// "NAME: 1 PREFIX1 2 PREFIX2 ..." from `first` to `last`.
std::string counted(const std::string& name, const std::string& prefix, int first, int last)
{
    std::string text = name + ":";
    for (int value = first; value <= last; ++value) {
        text += " " + std::to_string(value) + " " + prefix + std::to_string(value);
    }
    return text;
}

const std::string rejectReason =
    "RejectReason: 1 NO_SUPPORTED_PROTOCOL_REVISION 2 MAX_NUMBER_OF_CONNECTIONS_EXCEEDED";

const std::vector<Row>& briRows()
{
    static const std::vector<Row> rows = {
        {"BriServerMetadata", inside, {"1 name string = BriServer"}},
        {"TemperatureLevelMeasurementParam",
         inside,
         {"1 lower_level int32", "2 upper_level int32", "3 hysteresis int32"}},
        {"HotspotParam", inside, {"1 sensor int32", "2 threshold int32", "3 hysteresis int32"}},
        {"ConnEstablishReq", 0x170772D, {"1 supported_protocol_revisions repeated uint32"}},
        {"ConnEstablishCfm", 0x170772E, {"1 selected_protocol_revision uint32"}},
        {"ConnEstablishRej",
         0x170772F,
         {"1 reason " + briType("ConnEstablishRej.RejectReason"), rejectReason}},
        {"GetCapabilitiesReq", 0x1707730, {}},
        {"GetCapabilitiesCfm",
         0x1707731,
         {"1 capabilities repeated " + briType("GetCapabilitiesCfm.CapabilityType"),
          "2 temperature_level_measurement_params repeated " + briType("TemperatureLevelMeasurementParam"),
          "3 hotspot_params repeated " + briType("HotspotParam"), "4 supported_restart_ranks uint32",
          "CapabilityType: 0 UTC_TIME 1 HW_LOG 2 PRODUCT_INVENTORY 3 CONTAINER_PID 4 "
          "INTEGRATED_HW_CATEGORY_1 "
          "5 MARKET_PID 6 EXTENDED_MARKET_PID 7 NOTIFY_RESTART 8 TEMPERATURE_LEVEL_MEASUREMENT "
          "9 CLIMATE_CONTROL 10 RESTART_NOTIFICATION 11 RESTART_RANK_LABEL 12 EVENT_HISTORY 13 "
          "UNASSIGNED_13"}},
        {"GetCapabilitiesRej", 0x1707732, {}},
        {"RegisterUtcTimeSourceReq",
         0x1707733,
         {"1 accuracy " + briType("RegisterUtcTimeSourceReq.Accuracy"), "Accuracy: 1 NORMAL 2 REDUCED"}},
        {"RegisterUtcTimeSourceCfm", 0x1707734, {"1 utc_time_source_ref uint32"}},
        {"RegisterUtcTimeSourceRej", 0x1707735, {}},
        {"UnregisterUtcTimeSourceReq", 0x1707736, {"1 utc_time_source_ref uint32"}},
        {"UnregisterUtcTimeSourceCfm", 0x1707737, {}},
        {"UnregisterUtcTimeSourceRej", 0x1707738, {}},
        {"SetUtcTimeReq", 0x1707739, {"1 utc_time_source_ref uint32", "2 utc_time uint32"}},
        {"SetUtcTimeCfm", 0x170773A, {}},
        {"SetUtcTimeRej", 0x170773B, {}},
        {"GetProductInfoReq", 0x170773C, {}},
        {"GetProductInfoCfm",
         0x170773D,
         {"1 production_date string", "2 product_name string", "3 product_number string",
          "4 product_revision string", "5 manufacturer string", "6 serial_number string",
          "7 extended_market_name string"}},
        {"GetProductInfoRej", 0x170773E, {}},
        {"GetContainerPidReq", 0x170773F, {}},
        {"GetContainerPidCfm",
         0x1707740,
         {"1 production_date string", "2 container_name string", "3 product_number string",
          "4 product_revision string", "5 manufacturer string", "6 serial_number string"}},
        {"GetContainerPidRej", 0x1707741, {}},
        {"TempMeasStartReq", 0x1707742, {"1 timer_period uint32"}},
        {"TempMeasStartCfm", 0x1707743, {"1 temp_meas_ref uint32"}},
        {"TempMeasStartRej",
         0x1707744,
         {"1 reject_cause " + briType("TempMeasStartRej.RejectCauseE"),
          "RejectCauseE: 0 INVALID_TIMER_PERIOD 1 UNABLE_TO_START_TIMER 2 UNKNOWN"}},
        {"TempMeasStopReq", 0x1707745, {"1 temp_meas_ref uint32"}},
        {"TempMeasStopCfm", 0x1707746, {}},
        {"TempMeasStopRej",
         0x1707747,
         {"1 reject_cause " + briType("TempMeasStopRej.RejectCauseE"),
          "RejectCauseE: 0 INVALID_TEMP_MEAS_REF 1 UNABLE_TO_STOP_TIMER 2 UNKNOWN"}},
        {"TempMeasInd", 0x1707748, {"1 temperatures repeated int32"}},
        {"RestartBoardFwd",
         0x1707749,
         {"1 load_module string", "2 trace_info string", "3 restartCode int32", "4 label string",
          "5 restart_rank_v2 " + briType("RestartBoardFwd.RestartRankE"),
          "RestartRankE: 1 RANK_1 2 RANK_2 3 RANK_3 4 RANK_4 5 RANK_5"}},
        {"HwLogSetReq", 0x170774D, {"1 log_label string", "2 log_id uint32", "3 entries repeated string"}},
        {"HwLogSetCfm", 0x170774E, {}},
        {"HwLogSetRej", 0x170774F, {}},
        {"HwLogGetReq", 0x1707750, {"1 log_id uint32"}},
        {"HwLogGetCfm", 0x1707751, {"1 entries repeated string"}},
        {"HwLogGetRej",
         0x1707752,
         {"1 errorType " + briType("HwLogGetRej.ErrorType"),
          "ErrorType: 0 LOG_ID_OUT_OF_RANGE 1 READ_FAILED 2 UNKNOWN"}},
        {"SubscribeFaultsReq", 0x1707753, {}},
        {"SubscribeFaultsCfm", 0x1707754, {}},
        {"FaultInd",
         0x1707759,
         {"1 fault_id " + briType("BriFaultId"), "2 fault_case uint32",
          "3 fan_product_info " + briType("FaultInd.FanProductInfo")}},
        {"FaultInd.FanProductInfo",
         inside,
         {"1 fan_product_number string", "2 fan_parent_product_number string", "3 fan_position_slot int32"}},
        {"FaultCeaseInd", 0x170775A, {"1 fault_id " + briType("BriFaultId")}},
        {"SetLinkSupervisionTimeoutReq", 0x170775B, {"1 timeout uint32", "2 link string"}},
        {"SetLinkSupervisionTimeoutCfm", 0x170775C, {}},
        {"SetLinkSupervisionTimeoutRej", 0x170775D, {}},
        {"StartLinkTimeoutSupervisionReq", 0x170775E, {}},
        {"StartLinkTimeoutSupervisionCfm", 0x170775F, {}},
        {"StartLinkTimeoutSupervisionRej", 0x1707760, {}},
        {"StopLinkTimeoutSupervisionReq", 0x1707761, {}},
        {"StopLinkTimeoutSupervisionCfm", 0x1707762, {}},
        {"StopLinkTimeoutSupervisionRej", 0x1707763, {}},
        {"StoreNodeConfigEntryReq",
         0x1707764,
         {"1 log_label string", "2 log_id uint32", "3 server_ref int32", "4 entries repeated string"}},
        {"StoreNodeConfigEntryCfm", 0x1707765, {}},
        {"StoreNodeConfigEntryRej", 0x1707766, {}},
        {"TempMeasRestartReq", 0x170776A, {"1 temp_meas_ref uint32", "2 timer_period uint32"}},
        {"TempMeasRestartCfm", 0x170776B, {}},
        {"TempMeasRestartRej",
         0x170776C,
         {"1 reject_cause " + briType("TempMeasRestartRej.RejectCauseE"),
          "RejectCauseE: 0 INVALID_TIMER_PERIOD 1 UNABLE_TO_RESTART_TIMER 2 INVALID_TEMP_MEAS_REF 3 "
          "UNKNOWN"}},
        {"ConnectivitySetSupervisionTimeoutReq", 0x170776D, {}},
        {"ConnectivitySetSupervisionTimeoutCfm", 0x170776E, {}},
        {"ConnectivitySetSupervisionTimeoutRej", 0x170776F, {}},
        {"ConnectivityConnectedReq", 0x1707770, {}},
        {"ConnectivityConnectedCfm", 0x1707771, {}},
        {"ConnectivityConnectedRej", 0x1707772, {}},
        {"ConnectivityNotConnectedReq", 0x1707773, {}},
        {"ConnectivityNotConnectedCfm", 0x1707774, {}},
        {"ConnectivityNotConnectedRej", 0x1707775, {}},
    };
    return rows;
}

const std::vector<Row>& bmmiRows()
{
    static const std::vector<Row> rows = {
        {"ServerMetadata", inside, {"1 name string = BmmiServer"}},
        {"CapSupportUnitFaultIndicator", inside, {}},
        {"CapHereIAmSupport", inside, {}},
        {"CapCommonMmi", inside, {}},
        {"ConnEstablishReq", 0x1707570, {"1 supported_protocol_revisions repeated uint32"}},
        {"ConnEstablishCfm", 0x1707571, {"1 selected_protocol_revision uint32"}},
        {"ConnEstablishRej",
         0x1707572,
         {"1 reason " + bmmiType("ConnEstablishRej.RejectReason"), rejectReason}},
        {"SetMaintStateReq",
         0x1707573,
         {"1 mmi_user_id uint32", "2 maint_state " + bmmiType("SetMaintStateReq.MaintState"),
          counted("MaintState", "STATE_", 0, 4)}},
        {"SetMaintStateCfm", 0x1707574, {}},
        {"SetMaintStateRej",
         0x1707575,
         {"1 error_code " + bmmiType("SetMaintStateRej.ErrorCode"),
          "ErrorCode: 0 UNSPECIFIED 1 NOT_ACTIVATED 2 ILLEGAL_TRANSITION 3 SERVICE_MAN_PRESENT 4 "
          "UNASSIGNED_4"}},
        {"MaintStateInd",
         0x1707576,
         {"1 maint_state " + bmmiType("MaintStateInd.MaintState"), counted("MaintState", "STATE_", 0, 5)}},
        {"SubscribeMaintStateReq", 0x1707577, {"1 mmi_user_id uint32"}},
        {"SubscribeMaintStateCfm", 0x1707578, {}},
        {"SubscribeMaintStateRej", 0x1707579, {}},
        {"GetCapabilitiesReq", 0x170757D, {}},
        {"GetCapabilitiesCfm",
         0x170757E,
         {"1 cap_support_unit_fault_indicator " + bmmiType("CapSupportUnitFaultIndicator"),
          "2 cap_here_i_am_support " + bmmiType("CapHereIAmSupport"),
          "3 cap_common_mmi " + bmmiType("CapCommonMmi")}},
        {"GetCapabilitiesRej", 0x170757F, {}},
        {"RegisterMmiUserReq",
         0x1707580,
         {"1 priority " + bmmiType("RegisterMmiUserReq.Priority"), "Priority: 0 LOW 1 NORMAL"}},
        {"RegisterMmiUserCfm", 0x1707581, {"1 mmi_user_id uint32"}},
        {"RegisterMmiUserRej", 0x1707582, {}},
        {"UnregisterMmiUserReq", 0x1707583, {"1 mmi_user_id uint32"}},
        {"UnregisterMmiUserCfm", 0x1707584, {}},
        {"UnregisterMmiUserRej", 0x1707585, {}},
        {"SetVisualIndicationReq",
         0x1707586,
         {"1 mmi_user_id uint32", "2 visual_state " + bmmiType("SetVisualIndicationReq.VisualizedState"),
          counted("VisualizedState", "VISUALIZED_STATE_", 1, 20)}},
        {"SetVisualIndicationCfm", 0x1707587, {}},
        {"SetVisualIndicationRej", 0x1707588, {}},
        {"GetVisualIndicationReq", 0x1707589, {"1 mmi_user_id uint32"}},
        {"GetVisualIndicationCfm",
         0x170758A,
         {"1 group_4_state " + bmmiType("GetVisualIndicationCfm.Group4State"),
          "2 group_1_state " + bmmiType("GetVisualIndicationCfm.Group1State"),
          "3 group_3_state " + bmmiType("GetVisualIndicationCfm.Group3State"),
          "4 support_unit_fault_state " + bmmiType("GetVisualIndicationCfm.SupportUnitFaultState"),
          counted("Group1State", "GROUP_1_STATE_", 1, 8), counted("Group3State", "GROUP_3_STATE_", 1, 7),
          counted("Group4State", "GROUP_4_STATE_", 1, 3),
          counted("SupportUnitFaultState", "SUPPORT_UNIT_FAULT_STATE_", 1, 3)}},
        {"GetVisualIndicationRej", 0x170758B, {}},
        {"OrderHereIAmReq",
         0x170758C,
         {"1 mmi_user_id uint32", "2 order " + bmmiType("OrderHereIAmReq.Order"), "Order: 1 START 2 STOP"}},
        {"OrderHereIAmCfm", 0x170758D, {"1 text string", "2 status uint32"}},
        {"OrderHereIAmRej", 0x170758E, {}},
        {"SubscribeHereIAmStateReq", 0x170758F, {"1 mmi_user_id uint32"}},
        {"SubscribeHereIAmStateCfm", 0x1707590, {}},
        {"SubscribeHereIAmStateRej", 0x1707591, {}},
        {"HereIAmStateInd", 0x1707595, {"1 state uint32"}},
    };
    return rows;
}

} // namespace

TEST(Schema, briIsAsSettled)
{
    const auto& file = *bri::FaultInd::descriptor()->file();
    expectSchema(file, "boardresourcehandler.bri", briRows());
    ASSERT_EQ(file.enum_type_count(), 1);
    EXPECT_EQ(
        support::describeEnum(*file.enum_type(0)),
        "BriFaultId: 0 HW_FAULT 1 HW_FAULT_FOR_EVALUATION_LTU_FAULT 2 HW_FAULT_FOR_EVALUATION_INIT_FAULT "
        "3 HW_FAULT_FOR_EVALUATION 4 EXCEPTIONAL_TEMPERATURE_TOO_LOW 5 EXCEPTIONAL_TEMPERATURE_TOO_HIGH "
        "6 EXTERNAL_FAN_DEGRADED 7 EXTERNAL_FAN_FAILED 8 EXTERNAL_FAN_DISCONNECTED "
        "9 POE_DEVICE_0_TEMP_EXC_HIGH 10 POE_DEVICE_1_TEMP_EXC_HIGH 11 EXTERNAL_POWER_SUPPLY_FAULT "
        "12 EXTERNAL_FAN_HOST_DISCONNECTED 13 UNASSIGNED_13");
}

TEST(Schema, bmmiIsAsSettled)
{
    const auto& file = *bmmi::MaintStateInd::descriptor()->file();
    expectSchema(file, "boardresourcehandler.bmmi", bmmiRows());
    EXPECT_EQ(file.enum_type_count(), 0);
}

TEST(Schema, aRepeatedFieldIsNotPackedOnTheWire)
{
    bri::TempMeasInd indication;
    indication.add_temperatures(1);
    indication.add_temperatures(2);
    EXPECT_EQ(indication.SerializeAsString(), std::string("\x08\x01\x08\x02", 4));
}

TEST(Schema, aValueThatTheSchemaDoesNotKnowReadsAsAbsent)
{
    bmmi::MaintStateInd indication;
    ASSERT_TRUE(indication.ParseFromString(std::string("\x08\x06", 2)));
    EXPECT_FALSE(indication.has_maint_state());
}
