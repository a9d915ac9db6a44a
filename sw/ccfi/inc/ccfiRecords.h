/// Signals of CCFI. They carry a procedure and a connection reference where those of BCI have theirs.
#pragma once

#include "bci/bciCommon.h"

/// The one revision of CCFI that there is.
inline constexpr std::uint32_t CCFI_PROTOCOL_REVISION = 1;

/// Behind it stand `nbrOfSupportedProtocolRev` revisions of 32 bits.
struct CcfiBcConnEstablishReqS {
    std::uint32_t msgNo;
    std::uint32_t procedureRef;  ///< echoed in the answer
    std::uint32_t connectionRef; ///< the client's own
    std::uint32_t nbrOfSupportedProtocolRev;
};
template <> struct BciRecord<CcfiBcConnEstablishReqS> {
    static constexpr std::uint32_t number = CCFI_BC_CONN_ESTABLISH_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&CcfiBcConnEstablishReqS::procedureRef, &CcfiBcConnEstablishReqS::connectionRef,
                   &CcfiBcConnEstablishReqS::nbrOfSupportedProtocolRev};
    static_assert(sizeof(CcfiBcConnEstablishReqS) == size);
};

struct CcfiBcConnEstablishCfmS {
    std::uint32_t msgNo;
    std::uint32_t procedureRef;
    std::uint32_t connectionRef; ///< the server's: what the client names its connection by from now on
    std::uint32_t selectedProtocolRevision;
};
template <> struct BciRecord<CcfiBcConnEstablishCfmS> {
    static constexpr std::uint32_t number = CCFI_BC_CONN_ESTABLISH_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&CcfiBcConnEstablishCfmS::procedureRef, &CcfiBcConnEstablishCfmS::connectionRef,
                   &CcfiBcConnEstablishCfmS::selectedProtocolRevision};
    static_assert(sizeof(CcfiBcConnEstablishCfmS) == size);
};

struct CcfiBcConnEstablishRejS {
    std::uint32_t msgNo;
    std::uint32_t procedureRef;
    std::uint32_t connectionRef; ///< 0
    std::uint16_t errorCode;
    std::uint16_t unset14;
    unsigned char errorDescription[BCI_ERROR_DESCRIPTION_SIZE];
    unsigned char unset126[2];
};
template <> struct BciRecord<CcfiBcConnEstablishRejS> {
    static constexpr std::uint32_t number = CCFI_BC_CONN_ESTABLISH_REJ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&CcfiBcConnEstablishRejS::procedureRef, &CcfiBcConnEstablishRejS::connectionRef,
                   &CcfiBcConnEstablishRejS::errorCode};
    static_assert(sizeof(CcfiBcConnEstablishRejS) == size);
};
static_assert(offsetof(CcfiBcConnEstablishRejS, errorDescription) == 16);

/// Behind it stands the `hwFaultLabel`, a terminated text up to the signal's end.
struct CcfiBcFaultFwdS {
    std::uint32_t msgNo;
    std::uint32_t procedureRef;
    std::uint32_t connectionRef; ///< the server's
    std::uint16_t faultId;
    std::uint16_t unset;
    unsigned char faultDescription[112]; ///< terminated when it is shorter
    std::uint32_t recoveryTime;
};
template <> struct BciRecord<CcfiBcFaultFwdS> {
    static constexpr std::uint32_t number = CCFI_BC_FAULT_FWD;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&CcfiBcFaultFwdS::procedureRef, &CcfiBcFaultFwdS::connectionRef,
                                              &CcfiBcFaultFwdS::faultId, &CcfiBcFaultFwdS::recoveryTime};
    static_assert(sizeof(CcfiBcFaultFwdS) == size);
};
static_assert(offsetof(CcfiBcFaultFwdS, faultDescription) == 16);
static_assert(offsetof(CcfiBcFaultFwdS, recoveryTime) == 128);

struct CcfiBcFaultceaseFwdS {
    std::uint32_t msgNo;
    std::uint32_t procedureRef;
    std::uint32_t connectionRef; ///< the server's
    std::uint16_t faultId;
};
template <> struct BciRecord<CcfiBcFaultceaseFwdS> {
    static constexpr std::uint32_t number = CCFI_BC_FAULTCEASE_FWD;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&CcfiBcFaultceaseFwdS::procedureRef, &CcfiBcFaultceaseFwdS::connectionRef,
                   &CcfiBcFaultceaseFwdS::faultId};
};
static_assert(offsetof(CcfiBcFaultceaseFwdS, faultId) == 12);

struct CcfiBcConnCloseReqS {
    std::uint32_t msgNo;
    std::uint32_t procedureRef;  ///< echoed in the answer
    std::uint32_t connectionRef; ///< the server's
};
template <> struct BciRecord<CcfiBcConnCloseReqS> {
    static constexpr std::uint32_t number = CCFI_BC_CONN_CLOSE_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&CcfiBcConnCloseReqS::procedureRef, &CcfiBcConnCloseReqS::connectionRef};
    static_assert(sizeof(CcfiBcConnCloseReqS) == size);
};

struct CcfiBcConnCloseCfmS {
    std::uint32_t msgNo;
    std::uint32_t procedureRef;
    std::uint32_t connectionRef; ///< the client's own
};
template <> struct BciRecord<CcfiBcConnCloseCfmS> {
    static constexpr std::uint32_t number = CCFI_BC_CONN_CLOSE_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&CcfiBcConnCloseCfmS::procedureRef, &CcfiBcConnCloseCfmS::connectionRef};
    static_assert(sizeof(CcfiBcConnCloseCfmS) == size);
};

/// What the monitor of a client's mailbox delivers. Never leaves the process, so nothing of it is swapped.
struct CcfiMerlowMnetMonitorIndS {
    std::uint32_t msgNo;
    std::uint32_t serverConnectionReference;
};
template <> struct BciRecord<CcfiMerlowMnetMonitorIndS> {
    static constexpr std::uint32_t number = CCFI_MERLOW_MNET_MONITOR_IND;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{};
    static_assert(sizeof(CcfiMerlowMnetMonitorIndS) == size);
};
