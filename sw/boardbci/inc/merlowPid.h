#pragma once

#include "merlowComponent.h"

/// Product identity: what the unit is and what container it sits in.
///
///   TARN_BC_GET_HW_PID_REQ, TARN_BC_GET_MARKET_NAME_PID_REQ, TARN_BC_GET_EXTENDED_MARKET_NAME_REQ
///     -> the cache, or bri::GetProductInfoReq -> their CFM or REJ
///   TARN_BC_GET_CONTAINER_PID_REQ
///     -> the cache, or bri::GetContainerPidReq -> its CFM or REJ
///
/// The caches are in the common data and are filled by each answer of BRI, whoever asked; nothing invalidates
/// them. An answer to which there is no transaction, as that to what the server itself asks when it connects,
/// fills them too. A transaction ends with its answer. Server thread only.
class MerlowPid : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;

private:
    using Transaction = BrhClient::ProcedureTransaction;
    /// What the three requests that product data answers do differently.
    struct ProductService {
        std::uint32_t request;
        bool (*canServe)(const ProductInfo& info);
        void (MerlowPid::*sendCfm)(const Transaction& transaction) const;
        void (MerlowPid::*sendRej)(const Transaction& transaction) const;
    };
    static const ProductService s_productServices[3];
    /// Null, and a trace, when the transaction is none of theirs.
    [[nodiscard]] static const ProductService* findProductService(const Transaction& transaction);

    void handleGetHwPidReq(const std::shared_ptr<mnet_msg>& msg);
    void handleGetMarketNamePidReq(const std::shared_ptr<mnet_msg>& msg);
    void handleGetExtendedMarketNameReq(const std::shared_ptr<mnet_msg>& msg);
    void handleGetContainerPidReq(const std::shared_ptr<mnet_msg>& msg);
    void handleBriGetProductInfoCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBriGetProductInfoRej(const std::shared_ptr<mnet_msg>& msg);
    void handleBriGetContainerPidCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBriGetContainerPidRej(const std::shared_ptr<mnet_msg>& msg);

    /// Sends the BRI request, and leaves a transaction when it went out.
    template <class BriReq, class Req> void askBri(const Req& req, const mnet_msg& msg) const;
    /// False, and a trace, when the session has gone.
    [[nodiscard]] bool hasSession(const Transaction& transaction, const char* answer) const;
    /// The product name, or the one by which the client's kind knows the unit.
    [[nodiscard]] std::string productNameFor(const Transaction& transaction) const;
    template <class Rej> void sendRej(const Transaction& transaction) const;

    void sendGetHwPidCfm(const Transaction& transaction) const;
    void sendGetHwPidRej(const Transaction& transaction) const;
    void sendGetMarketNamePidCfm(const Transaction& transaction) const;
    void sendGetMarketNamePidRej(const Transaction& transaction) const;
    void sendGetExtendedMarketNameCfm(const Transaction& transaction) const;
    void sendGetExtendedMarketNameRej(const Transaction& transaction) const;
    void sendGetContainerPidCfm(const Transaction& transaction) const;
    void sendGetContainerPidRej(const Transaction& transaction) const;
};
