/// The signals of BCI and of CCFI: number, name and size in bytes of each, in one table. A signal with a list
/// or a text of free length at its end has the size that it has without.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// clang-format off
#define BCI_SIGNAL_TABLE(ROW)                                                     \
    ROW(TARN_BC_CONN_ESTABLISH_REQ,                            0x1658000,  16)    \
    ROW(TARN_BC_CONN_ESTABLISH_CFM,                            0x1658001,  12)    \
    ROW(TARN_BC_CONN_ESTABLISH_REJ,                            0x1658002, 132)    \
    ROW(TARN_BC_RESTART_BOARD_FWD,                             0x1658003,  12)    \
    ROW(TARN_BC_SET_VISUAL_INDICATION_REQ,                     0x1658004,  14)    \
    ROW(TARN_BC_SET_VISUAL_INDICATION_CFM,                     0x1658005,  12)    \
    ROW(TARN_BC_SET_VISUAL_INDICATION_REJ,                     0x1658006, 128)    \
    ROW(TARN_BC_GET_CAPABILITIES_REQ,                          0x1658007,  12)    \
    ROW(TARN_BC_GET_CAPABILITIES_CFM,                          0x1658008,  16)    \
    ROW(TARN_BC_GET_CAPABILITIES_REJ,                          0x1658009, 128)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_REQ,                          0x165800A,  12)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_CFM,                          0x165800B,  12)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_REJ,                          0x165800C, 128)    \
    ROW(TARN_BC_FAULT_IND,                                     0x165800D, 144)    \
    ROW(TARN_BC_FAULTCEASE_IND,                                0x165800E,  28)    \
    ROW(TARN_BC_GET_VISUAL_INDICATION_REQ,                     0x165800F,  12)    \
    ROW(TARN_BC_GET_VISUAL_INDICATION_CFM,                     0x1658010,  20)    \
    ROW(TARN_BC_GET_VISUAL_INDICATION_REJ,                     0x1658011, 128)    \
    ROW(TARN_BC_SELECT_MMI_REQ,                                0x1658012,  16)    \
    ROW(TARN_BC_SELECT_MMI_CFM,                                0x1658013,  12)    \
    ROW(TARN_BC_SELECT_MMI_REJ,                                0x1658014, 128)    \
    ROW(TARN_BC_SUBSCRIBE_MAINT_STATE_REQ,                     0x1658015,  12)    \
    ROW(TARN_BC_SUBSCRIBE_MAINT_STATE_CFM,                     0x1658016,  12)    \
    ROW(TARN_BC_SUBSCRIBE_MAINT_STATE_REJ,                     0x1658017, 128)    \
    ROW(TARN_BC_SET_MAINT_STATE_IND,                           0x1658018,  16)    \
    ROW(TARN_BC_SET_MAINT_STATE_REQ,                           0x1658019,  16)    \
    ROW(TARN_BC_SET_MAINT_STATE_CFM,                           0x165801A,  12)    \
    ROW(TARN_BC_SET_MAINT_STATE_REJ,                           0x165801B, 128)    \
    ROW(TARN_BC_LINK_SUPERVISION_REQ,                          0x165801C,  12)    \
    ROW(TARN_BC_LINK_SUPERVISION_REJ,                          0x165801E, 128)    \
    ROW(TARN_BC_GET_HW_PID_REQ,                                0x1658200,  12)    \
    ROW(TARN_BC_GET_HW_PID_CFM,                                0x1658201,  92)    \
    ROW(TARN_BC_GET_HW_PID_REJ,                                0x1658202, 128)    \
    ROW(TARN_BC_GET_CONTAINER_PID_REQ,                         0x1658203,  12)    \
    ROW(TARN_BC_GET_CONTAINER_PID_CFM,                         0x1658204, 100)    \
    ROW(TARN_BC_GET_CONTAINER_PID_REJ,                         0x1658205, 128)    \
    ROW(TARN_BC_GET_MARKET_NAME_PID_REQ,                       0x1658206,  12)    \
    ROW(TARN_BC_GET_MARKET_NAME_PID_CFM,                       0x1658207, 148)    \
    ROW(TARN_BC_GET_MARKET_NAME_PID_REJ,                       0x1658208, 128)    \
    ROW(TARN_BC_GET_EXTENDED_MARKET_NAME_REQ,                  0x1658209,  12)    \
    ROW(TARN_BC_GET_EXTENDED_MARKET_NAME_CFM,                  0x165820A,  80)    \
    ROW(TARN_BC_GET_EXTENDED_MARKET_NAME_REJ,                  0x165820B, 128)    \
    ROW(TARN_BC_AUDIT_REQ,                                     0x1658400,  12)    \
    ROW(TARN_BC_AUDIT_CFM,                                     0x1658401,  16)    \
    ROW(TARN_BC_ENABLE_OPERATION_REQ,                          0x1658403,  12)    \
    ROW(TARN_BC_ENABLE_OPERATION_CFM,                          0x1658404,  12)    \
    ROW(TARN_BC_ENABLE_OPERATION_REJ,                          0x1658405, 128)    \
    ROW(TARN_BC_DISABLE_OPERATION_REQ,                         0x1658406,  12)    \
    ROW(TARN_BC_DISABLE_OPERATION_CFM,                         0x1658407,  12)    \
    ROW(TARN_BC_DISABLE_OPERATION_REJ,                         0x1658408, 128)    \
    ROW(TARN_BC_LMC_INIT_REQ,                                  0x1658803,  12)    \
    ROW(TARN_BC_LMC_INIT_CFM,                                  0x1658804,  16)    \
    ROW(TARN_BC_LMC_INIT_REJ,                                  0x1658805, 128)    \
    ROW(TARN_BC_LMC_DATA,                                      0x1658806,  20)    \
    ROW(TARN_BC_LMC_DATA_ACK,                                  0x1658807,  16)    \
    ROW(TARN_BC_LMC_END_REQ,                                   0x1658808,  12)    \
    ROW(TARN_BC_LMC_END_CFM,                                   0x1658809,  16)    \
    ROW(TARN_BC_LMC_END_REJ,                                   0x165880A, 128)    \
    ROW(TARN_BC_SELECT_LMC_REQ,                                0x165880B,  12)    \
    ROW(TARN_BC_SELECT_LMC_CFM,                                0x165880C,  12)    \
    ROW(TARN_BC_SELECT_LMC_REJ,                                0x165880D, 128)    \
    ROW(TARN_BC_SW_COMP_LIST_REQ,                              0x165880E,  12)    \
    ROW(TARN_BC_SW_COMP_LIST_CFM,                              0x165880F,  12)    \
    ROW(TARN_BC_SW_COMP_LIST_REJ,                              0x1658810, 128)    \
    ROW(TARN_BC_SW_COMP_LIST_DATA,                             0x1658811,  20)    \
    ROW(TARN_BC_SW_COMP_LIST_ACK,                              0x1658812,  16)    \
    ROW(TARN_BC_GET_RUNNING_LMC_REQ,                           0x1658813,  12)    \
    ROW(TARN_BC_GET_RUNNING_LMC_CFM,                           0x1658814,  48)    \
    ROW(TARN_BC_GET_RUNNING_LMC_REJ,                           0x1658815, 128)    \
    ROW(TARN_BC_NOTIFY_RESTART_REQ,                            0x1658816,  16)    \
    ROW(TARN_BC_NOTIFY_RESTART_CFM,                            0x1658817,  12)    \
    ROW(TARN_BC_NOTIFY_RESTART_REJ,                            0x1658818, 128)    \
    ROW(TARN_BC_TEMP_MEAS_START_REQ,                           0x1659100,  13)    \
    ROW(TARN_BC_TEMP_MEAS_START_CFM,                           0x1659101,  12)    \
    ROW(TARN_BC_TEMP_MEAS_START_REJ,                           0x1659102, 128)    \
    ROW(TARN_BC_TEMP_MEAS_IND,                                 0x1659103,  36)    \
    ROW(TARN_BC_HWLOG_SET_REQ,                                 0x165920A, 460)    \
    ROW(TARN_BC_HWLOG_SET_CFM,                                 0x165920B,  12)    \
    ROW(TARN_BC_HWLOG_SET_REJ,                                 0x165920C, 128)    \
    ROW(TARN_BC_HWLOG_GET_REQ,                                 0x165920D,  16)    \
    ROW(TARN_BC_HWLOG_GET_CFM,                                 0x165920E, 440)    \
    ROW(TARN_BC_HWLOG_GET_REJ,                                 0x165920F, 128)    \
    ROW(TARN_BC_SET_UTC_TIME_REQ,                              0x1659500,  16)    \
    ROW(TARN_BC_SET_UTC_TIME_CFM,                              0x1659501,  12)    \
    ROW(TARN_BC_SET_UTC_TIME_REJ,                              0x1659502, 128)    \
    ROW(TARN_BC_ACQUIRE_RESOURCE_REQ,                          0x1659800,  16)    \
    ROW(TARN_BC_ACQUIRE_RESOURCE_CFM,                          0x1659801,  16)    \
    ROW(TARN_BC_ACQUIRE_RESOURCE_REJ,                          0x1659802, 132)    \
    ROW(TARN_BC_RELEASE_RESOURCE_REQ,                          0x1659803,  16)    \
    ROW(TARN_BC_RELEASE_RESOURCE_CFM,                          0x1659804,  16)    \
    ROW(TARN_BC_RELEASE_RESOURCE_REJ,                          0x1659805, 132)    \
    ROW(TARN_BC_GET_SPECIAL_INDICATOR_REQ,                     0x1659A00,  12)    \
    ROW(TARN_BC_GET_SPECIAL_INDICATOR_CFM,                     0x1659A01,  16)    \
    ROW(TARN_BC_GET_SPECIAL_INDICATOR_REJ,                     0x1659A02, 128)    \
    ROW(TARN_BC_RESTART_BOARD_NOTIFICATION_IND,                0x1659B03, 180)    \
    ROW(TARN_BC_RESTART_BOARD_WITH_RANK_AND_LABEL_FWD,         0x1659B04, 156)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_CFM,       0x165A002,  12)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ,       0x165A004,  12)    \
    ROW(TARN_BC_FAULT_WITH_RECOVERY_TIME_AND_HW_FAULT_LABEL_IND,0x165A101, 148)   \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM,      0x165A104,  12)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REJ,      0x165A105, 128)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ,      0x165A107,  12)    \
    ROW(TARN_BC_ORDE_HERE_I_AM_REQ,                            0x165A401,  14)    \
    ROW(TARN_BC_ORDE_HERE_I_AM_CFM,                            0x165A402, 144)    \
    ROW(TARN_BC_ORDE_HERE_I_AM_REJ,                            0x165A403, 128)    \
    ROW(TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ,                 0x165A404,  12)    \
    ROW(TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_CFM,                 0x165A405,  12)    \
    ROW(TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REJ,                 0x165A406, 128)    \
    ROW(TARN_BC_HERE_I_AM_STATE_IND,                           0x165A407,  16)    \
    ROW(CCFI_BC_CONN_ESTABLISH_REQ,                            0x17C0201,  16)    \
    ROW(CCFI_BC_CONN_ESTABLISH_CFM,                            0x17C0202,  16)    \
    ROW(CCFI_BC_CONN_ESTABLISH_REJ,                            0x17C0203, 128)    \
    ROW(CCFI_BC_FAULT_FWD,                                     0x17C0204, 132)    \
    ROW(CCFI_BC_FAULTCEASE_FWD,                                0x17C0205,  14)    \
    ROW(CCFI_BC_CONN_CLOSE_REQ,                                0x17C0206,  12)    \
    ROW(CCFI_BC_CONN_CLOSE_CFM,                                0x17C0207,  12)    \
    ROW(CCFI_MERLOW_MNET_MONITOR_IND,                          0x17C0209,   8)
// clang-format on

enum BciSignalNumber : std::uint32_t {
#define BCI_SIGNAL_NUMBER(name, number, size) name = (number),
    BCI_SIGNAL_TABLE(BCI_SIGNAL_NUMBER)
#undef BCI_SIGNAL_NUMBER
};

struct BciSignal {
    std::uint32_t number;
    std::string_view name;
    std::size_t size;
};

inline constexpr auto BCI_SIGNALS = std::to_array<BciSignal>({
#define BCI_SIGNAL_ROW(name, number, size) {number, #name, size},
    BCI_SIGNAL_TABLE(BCI_SIGNAL_ROW)
#undef BCI_SIGNAL_ROW
});
#undef BCI_SIGNAL_TABLE

/// The row of a number, or null.
constexpr const BciSignal* findBciSignal(std::uint32_t number)
{
    for (const BciSignal& signal : BCI_SIGNALS) {
        if (signal.number == number) {
            return &signal;
        }
    }
    return nullptr;
}

/// The size of a signal of the table; another number in a constant does not compile.
constexpr std::size_t bciSizeOf(std::uint32_t number)
{
    return findBciSignal(number)->size;
}
