/// Signals of the fault subscriptions.
#pragma once

#include "bci/bciCommon.h"

using TarnBcSubscribeFaultsReqS = TarnBcPlainS<TARN_BC_SUBSCRIBE_FAULTS_REQ>;
using TarnBcSubscribeFaultsCfmS = TarnBcPlainS<TARN_BC_SUBSCRIBE_FAULTS_CFM>;
using TarnBcSubscribeFaultsRejS = TarnBcRejS<TARN_BC_SUBSCRIBE_FAULTS_REJ>;
using TarnBcSubscribeFaultsWithHwFaultLabelReqS =
    TarnBcPlainS<TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ>;
using TarnBcSubscribeFaultsWithHwFaultLabelCfmS =
    TarnBcPlainS<TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM>;
using TarnBcSubscribeFaultsWithHwFaultLabelRejS =
    TarnBcRejS<TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REJ>;
using TarnBcSubscribeFaultsWithRecoveryTimeReqS =
    TarnBcPlainS<TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ>;
using TarnBcSubscribeFaultsWithRecoveryTimeCfmS =
    TarnBcPlainS<TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_CFM>;

/// Bytes of `faultDescription`, the terminator included.
inline constexpr unsigned int BCI_FAULT_DESCRIPTION_SIZE = 110;

struct TarnBcFaultIndS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t faultId;
    std::uint16_t reserved14;
    unsigned char faultDescription[BCI_FAULT_DESCRIPTION_SIZE];
    std::uint16_t reserved126;
    std::uint16_t additionalDataLength; ///< in 16-bit words; always 0
    std::uint16_t reserved130;
    std::uint16_t additionalData[4];
    std::uint16_t faultCase;
    std::uint16_t reserved142;
};
template <> struct BciRecord<TarnBcFaultIndS> {
    static constexpr std::uint32_t number = TARN_BC_FAULT_IND;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&TarnBcFaultIndS::faultId,     &TarnBcFaultIndS::reserved14,
                   &TarnBcFaultIndS::reserved126, &TarnBcFaultIndS::additionalDataLength,
                   &TarnBcFaultIndS::reserved130, &TarnBcFaultIndS::additionalData,
                   &TarnBcFaultIndS::faultCase,   &TarnBcFaultIndS::reserved142};
    static_assert(size == 144 && sizeof(TarnBcFaultIndS) == size);
};
static_assert(offsetof(TarnBcFaultIndS, faultId) == 12);
static_assert(offsetof(TarnBcFaultIndS, faultDescription) == 16);
static_assert(offsetof(TarnBcFaultIndS, additionalDataLength) == 128);
static_assert(offsetof(TarnBcFaultIndS, additionalData) == 132);
static_assert(offsetof(TarnBcFaultIndS, faultCase) == 140);

struct TarnBcFaultceaseIndS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t faultId;
    std::uint16_t additionalDataLength; ///< in 16-bit words; always 0
    std::uint16_t additionalData[4];
    std::uint16_t faultCase;
    std::uint16_t reserved26;
};
template <> struct BciRecord<TarnBcFaultceaseIndS> {
    static constexpr std::uint32_t number = TARN_BC_FAULTCEASE_IND;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&TarnBcFaultceaseIndS::faultId, &TarnBcFaultceaseIndS::additionalDataLength,
                   &TarnBcFaultceaseIndS::additionalData, &TarnBcFaultceaseIndS::faultCase,
                   &TarnBcFaultceaseIndS::reserved26};
    static_assert(size == 28 && sizeof(TarnBcFaultceaseIndS) == size);
};
static_assert(offsetof(TarnBcFaultceaseIndS, faultId) == 12);
static_assert(offsetof(TarnBcFaultceaseIndS, additionalData) == 16);
static_assert(offsetof(TarnBcFaultceaseIndS, faultCase) == 24);

/// `TarnBcFaultIndS` with the recovery time; `hwFaultLabel`, a text of free length, follows.
struct TarnBcFaultWithRecoveryTimeAndHwFaultLabelIndS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t faultId;
    std::uint16_t reserved14;
    unsigned char faultDescription[BCI_FAULT_DESCRIPTION_SIZE];
    std::uint16_t reserved126;
    std::uint16_t additionalDataLength; ///< in 16-bit words
    std::uint16_t reserved130;
    std::uint16_t additionalData[4];
    std::uint16_t faultCase;
    std::uint16_t reserved142;
    std::uint32_t recoveryTime;
};
template <> struct BciRecord<TarnBcFaultWithRecoveryTimeAndHwFaultLabelIndS> {
    using R = TarnBcFaultWithRecoveryTimeAndHwFaultLabelIndS;
    static constexpr std::uint32_t number = TARN_BC_FAULT_WITH_RECOVERY_TIME_AND_HW_FAULT_LABEL_IND;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&R::faultId, &R::additionalDataLength, &R::additionalData,
                                              &R::faultCase, &R::recoveryTime};
    static_assert(size == 148 && sizeof(R) == size);
};
static_assert(offsetof(TarnBcFaultWithRecoveryTimeAndHwFaultLabelIndS, additionalDataLength) == 128);
static_assert(offsetof(TarnBcFaultWithRecoveryTimeAndHwFaultLabelIndS, additionalData) == 132);
static_assert(offsetof(TarnBcFaultWithRecoveryTimeAndHwFaultLabelIndS, faultCase) == 140);
static_assert(offsetof(TarnBcFaultWithRecoveryTimeAndHwFaultLabelIndS, recoveryTime) == 144);
