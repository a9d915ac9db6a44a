/// The two layouts that most signals share, and the signals that establish a connection.
#pragma once

#include "bci/bciRecord.h"

/// Bytes of every `errorDescription`, the terminator included.
inline constexpr unsigned int BCI_ERROR_DESCRIPTION_SIZE = 110;

/// A signal with nothing behind its references.
template <std::uint32_t Number> struct TarnBcPlainS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
};
template <std::uint32_t Number> struct BciRecord<TarnBcPlainS<Number>> {
    static constexpr std::uint32_t number = Number;
    static constexpr std::size_t size = bciSizeOf(Number);
    static constexpr auto fields = std::tuple{};
    static_assert(size == 12 && sizeof(TarnBcPlainS<Number>) == size);
};

/// The layout of every reject but `TARN_BC_CONN_ESTABLISH_REJ`.
template <std::uint32_t Number> struct TarnBcRejS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t errorCode;
    std::uint16_t unset14;
    unsigned char errorDescription[BCI_ERROR_DESCRIPTION_SIZE];
    unsigned char unset126[2];
};
template <std::uint32_t Number> struct BciRecord<TarnBcRejS<Number>> {
    static constexpr std::uint32_t number = Number;
    static constexpr std::size_t size = bciSizeOf(Number);
    static constexpr auto fields = std::tuple{&TarnBcRejS<Number>::errorCode};
    static_assert(size == 128 && sizeof(TarnBcRejS<Number>) == size);
    static_assert(offsetof(TarnBcRejS<Number>, errorCode) == 12);
    static_assert(offsetof(TarnBcRejS<Number>, errorDescription) == 16);
};

struct TarnBcConnEstablishReqS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo; ///< `serverRef` selects the radio access type
    std::uint16_t protocolRev;
    std::uint16_t unset14;
};
template <> struct BciRecord<TarnBcConnEstablishReqS> {
    static constexpr std::uint32_t number = TARN_BC_CONN_ESTABLISH_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcConnEstablishReqS::protocolRev};
};
static_assert(offsetof(TarnBcConnEstablishReqS, protocolRev) == 12);

/// Its `serverRef` is the reference that the client uses from now on.
using TarnBcConnEstablishCfmS = TarnBcPlainS<TARN_BC_CONN_ESTABLISH_CFM>;

struct TarnBcConnEstablishRejS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t protocolRev; ///< the highest supported one
    std::uint16_t unset14;
    std::uint16_t errorCode;
    std::uint16_t unset18;
    unsigned char errorDescription[BCI_ERROR_DESCRIPTION_SIZE];
    unsigned char unset130[2];
};
template <> struct BciRecord<TarnBcConnEstablishRejS> {
    static constexpr std::uint32_t number = TARN_BC_CONN_ESTABLISH_REJ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields =
        std::tuple{&TarnBcConnEstablishRejS::protocolRev, &TarnBcConnEstablishRejS::errorCode};
};
static_assert(offsetof(TarnBcConnEstablishRejS, protocolRev) == 12);
static_assert(offsetof(TarnBcConnEstablishRejS, errorCode) == 16);
static_assert(offsetof(TarnBcConnEstablishRejS, errorDescription) == 20);
