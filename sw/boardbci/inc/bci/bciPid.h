/// Signals of the unit's product identity. All texts are terminated in their arrays.
#pragma once

#include "bci/bciCommon.h"

using TarnBcGetHwPidReqS = TarnBcPlainS<TARN_BC_GET_HW_PID_REQ>;
using TarnBcGetHwPidRejS = TarnBcRejS<TARN_BC_GET_HW_PID_REJ>;
using TarnBcGetContainerPidReqS = TarnBcPlainS<TARN_BC_GET_CONTAINER_PID_REQ>;
using TarnBcGetContainerPidRejS = TarnBcRejS<TARN_BC_GET_CONTAINER_PID_REJ>;
using TarnBcGetMarketNamePidReqS = TarnBcPlainS<TARN_BC_GET_MARKET_NAME_PID_REQ>;
using TarnBcGetMarketNamePidRejS = TarnBcRejS<TARN_BC_GET_MARKET_NAME_PID_REJ>;
using TarnBcGetExtendedMarketNameReqS = TarnBcPlainS<TARN_BC_GET_EXTENDED_MARKET_NAME_REQ>;
using TarnBcGetExtendedMarketNameRejS = TarnBcRejS<TARN_BC_GET_EXTENDED_MARKET_NAME_REJ>;

struct TarnBcGetHwPidCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    unsigned char pidField1[9];
    unsigned char unset21[3];
    unsigned char productName[13];
    unsigned char unset37[3];
    unsigned char pidField3[25];
    unsigned char unset65[3];
    unsigned char pidField4[8];
    unsigned char pidField5[14];
    unsigned char unset90[2];
};
template <> struct BciRecord<TarnBcGetHwPidCfmS> {
    static constexpr std::uint32_t number = TARN_BC_GET_HW_PID_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{};
    static_assert(size == 92 && sizeof(TarnBcGetHwPidCfmS) == size);
};
static_assert(offsetof(TarnBcGetHwPidCfmS, pidField1) == 12);
static_assert(offsetof(TarnBcGetHwPidCfmS, productName) == 24);
static_assert(offsetof(TarnBcGetHwPidCfmS, pidField3) == 40);
static_assert(offsetof(TarnBcGetHwPidCfmS, pidField4) == 68);
static_assert(offsetof(TarnBcGetHwPidCfmS, pidField5) == 76);

struct TarnBcGetContainerPidCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    unsigned char pidField1[9];
    unsigned char unset21[3];
    unsigned char containerName[21];
    unsigned char unset45[3];
    unsigned char pidField3[25];
    unsigned char unset73[3];
    unsigned char pidField4[8];
    unsigned char pidField5[14];
    unsigned char unset98[2];
};
template <> struct BciRecord<TarnBcGetContainerPidCfmS> {
    static constexpr std::uint32_t number = TARN_BC_GET_CONTAINER_PID_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{};
    static_assert(size == 100 && sizeof(TarnBcGetContainerPidCfmS) == size);
};
static_assert(offsetof(TarnBcGetContainerPidCfmS, pidField1) == 12);
static_assert(offsetof(TarnBcGetContainerPidCfmS, containerName) == 24);
static_assert(offsetof(TarnBcGetContainerPidCfmS, pidField3) == 48);
static_assert(offsetof(TarnBcGetContainerPidCfmS, pidField4) == 76);
static_assert(offsetof(TarnBcGetContainerPidCfmS, pidField5) == 84);

struct TarnBcGetMarketNamePidCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    unsigned char pidField1[9];
    unsigned char unset21[3];
    unsigned char productName[33];
    unsigned char unset57[3];
    unsigned char extendedMarketName[33];
    unsigned char unset93[3];
    unsigned char pidField3[25];
    unsigned char unset121[3];
    unsigned char pidField4[8];
    unsigned char pidField5[14];
    unsigned char unset146[2];
};
template <> struct BciRecord<TarnBcGetMarketNamePidCfmS> {
    static constexpr std::uint32_t number = TARN_BC_GET_MARKET_NAME_PID_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{};
    static_assert(size == 148 && sizeof(TarnBcGetMarketNamePidCfmS) == size);
};
static_assert(offsetof(TarnBcGetMarketNamePidCfmS, pidField1) == 12);
static_assert(offsetof(TarnBcGetMarketNamePidCfmS, productName) == 24);
static_assert(offsetof(TarnBcGetMarketNamePidCfmS, extendedMarketName) == 60);
static_assert(offsetof(TarnBcGetMarketNamePidCfmS, pidField3) == 96);
static_assert(offsetof(TarnBcGetMarketNamePidCfmS, pidField4) == 124);
static_assert(offsetof(TarnBcGetMarketNamePidCfmS, pidField5) == 132);

struct TarnBcGetExtendedMarketNameCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    unsigned char extendedMarketName[65];
    unsigned char unset77[3];
};
template <> struct BciRecord<TarnBcGetExtendedMarketNameCfmS> {
    static constexpr std::uint32_t number = TARN_BC_GET_EXTENDED_MARKET_NAME_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{};
    static_assert(size == 80 && sizeof(TarnBcGetExtendedMarketNameCfmS) == size);
};
static_assert(offsetof(TarnBcGetExtendedMarketNameCfmS, extendedMarketName) == 12);
