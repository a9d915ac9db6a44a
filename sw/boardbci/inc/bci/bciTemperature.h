/// Signals of the temperature measurement.
#pragma once

#include "bci/bciCommon.h"

struct TarnBcTempMeasStartReq {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint8_t hotSpotMeasurementPeriod; ///< in seconds; 0 ends a measurement that runs
};
template <> struct BciRecord<TarnBcTempMeasStartReq> {
    static constexpr std::uint32_t number = TARN_BC_TEMP_MEAS_START_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{};
    static_assert(size == 13);
};
static_assert(offsetof(TarnBcTempMeasStartReq, hotSpotMeasurementPeriod) == 12);

using TarnBcTempMeasStartCfmS = TarnBcPlainS<TARN_BC_TEMP_MEAS_START_CFM>;
using TarnBcTempMeasStartRejS = TarnBcRejS<TARN_BC_TEMP_MEAS_START_REJ>;

struct TarnBcTempMeasIndS {
    static constexpr std::size_t maxReadings = 10;
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t numberOfReadings;
    std::uint16_t reserved14;
    std::uint16_t readings[maxReadings]; ///< as the board tells them, those behind the number are 0
};
template <> struct BciRecord<TarnBcTempMeasIndS> {
    static constexpr std::uint32_t number = TARN_BC_TEMP_MEAS_IND;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&TarnBcTempMeasIndS::numberOfReadings, &TarnBcTempMeasIndS::readings};
    static_assert(size == 36 && sizeof(TarnBcTempMeasIndS) == size);
};
static_assert(offsetof(TarnBcTempMeasIndS, numberOfReadings) == 12);
static_assert(offsetof(TarnBcTempMeasIndS, readings) == 16);
