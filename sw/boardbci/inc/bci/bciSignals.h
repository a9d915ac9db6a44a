/// The signals of BCI and of CCFI: number, name and size in bytes of each, in one table. A signal with a list
/// or a text of free length at its end has the size that it has without.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// clang-format off
#define BCI_SIGNAL_TABLE(ROW)                                                \
    ROW(TARN_BC_CONN_ESTABLISH_REQ,                       0x1658000,  16)    \
    ROW(TARN_BC_CONN_ESTABLISH_CFM,                       0x1658001,  12)    \
    ROW(TARN_BC_CONN_ESTABLISH_REJ,                       0x1658002, 132)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_REQ,                     0x165800A,  12)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_CFM,                     0x165800B,  12)    \
    ROW(TARN_BC_FAULT_IND,                                0x165800D, 144)    \
    ROW(TARN_BC_FAULTCEASE_IND,                           0x165800E,  28)    \
    ROW(TARN_BC_SELECT_MMI_REQ,                           0x1658012,  16)    \
    ROW(TARN_BC_SELECT_MMI_CFM,                           0x1658013,  12)    \
    ROW(TARN_BC_SELECT_MMI_REJ,                           0x1658014, 128)    \
    ROW(TARN_BC_GET_HW_PID_REQ,                           0x1658200,  12)    \
    ROW(TARN_BC_GET_HW_PID_CFM,                           0x1658201,  92)    \
    ROW(TARN_BC_GET_HW_PID_REJ,                           0x1658202, 128)    \
    ROW(TARN_BC_GET_CONTAINER_PID_REQ,                    0x1658203,  12)    \
    ROW(TARN_BC_GET_CONTAINER_PID_CFM,                    0x1658204, 100)    \
    ROW(TARN_BC_GET_CONTAINER_PID_REJ,                    0x1658205, 128)    \
    ROW(TARN_BC_GET_MARKET_NAME_PID_REQ,                  0x1658206,  12)    \
    ROW(TARN_BC_GET_MARKET_NAME_PID_CFM,                  0x1658207, 148)    \
    ROW(TARN_BC_GET_MARKET_NAME_PID_REJ,                  0x1658208, 128)    \
    ROW(TARN_BC_GET_EXTENDED_MARKET_NAME_REQ,             0x1658209,  12)    \
    ROW(TARN_BC_GET_EXTENDED_MARKET_NAME_CFM,             0x165820A,  80)    \
    ROW(TARN_BC_GET_EXTENDED_MARKET_NAME_REJ,             0x165820B, 128)    \
    ROW(TARN_BC_AUDIT_REQ,                                0x1658400,  12)    \
    ROW(TARN_BC_AUDIT_CFM,                                0x1658401,  16)    \
    ROW(TARN_BC_ENABLE_OPERATION_REQ,                     0x1658403,  12)    \
    ROW(TARN_BC_ENABLE_OPERATION_CFM,                     0x1658404,  12)    \
    ROW(TARN_BC_ENABLE_OPERATION_REJ,                     0x1658405, 128)    \
    ROW(TARN_BC_DISABLE_OPERATION_REQ,                    0x1658406,  12)    \
    ROW(TARN_BC_DISABLE_OPERATION_CFM,                    0x1658407,  12)    \
    ROW(TARN_BC_DISABLE_OPERATION_REJ,                    0x1658408, 128)    \
    ROW(TARN_BC_SET_UTC_TIME_REQ,                         0x1659500,  16)    \
    ROW(TARN_BC_SET_UTC_TIME_CFM,                         0x1659501,  12)    \
    ROW(TARN_BC_SET_UTC_TIME_REJ,                         0x1659502, 128)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_CFM,  0x165A002,  12)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ,  0x165A004,  12)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM, 0x165A104,  12)    \
    ROW(TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ, 0x165A107,  12)    \
    ROW(CCFI_BC_CONN_ESTABLISH_REQ,                       0x17C0201,  16)    \
    ROW(CCFI_BC_CONN_ESTABLISH_CFM,                       0x17C0202,  16)    \
    ROW(CCFI_BC_CONN_ESTABLISH_REJ,                       0x17C0203, 128)    \
    ROW(CCFI_BC_FAULT_FWD,                                0x17C0204, 132)    \
    ROW(CCFI_BC_FAULTCEASE_FWD,                           0x17C0205,  14)    \
    ROW(CCFI_BC_CONN_CLOSE_REQ,                           0x17C0206,  12)    \
    ROW(CCFI_BC_CONN_CLOSE_CFM,                           0x17C0207,  12)    \
    ROW(CCFI_MERLOW_MNET_MONITOR_IND,                     0x17C0209,   8)
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
