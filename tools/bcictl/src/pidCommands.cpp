// What the unit and its container are.

#include "groups.h"

#include "bci/bciPid.h"

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;
using tools::textOf;

/// The texts that the unit's and the container's identity share, behind their names.
template <class Cfm> Told toldIdentity(std::string text, Fields names, const Cfm& cfm)
{
    const std::string number = textOf(cfm.pidField3);
    const std::string revision = textOf(cfm.pidField4);
    const std::string serial = textOf(cfm.pidField5);
    const std::string date = textOf(cfm.pidField1);
    text +=
        ", number " + number + ", revision " + revision + ", serial number " + serial + ", produced " + date;
    names.update({{"productNumber", number},
                  {"productRevision", revision},
                  {"serialNumber", serial},
                  {"productionDate", date}});
    return {text, names};
}

Told tell(const TarnBcGetHwPidCfmS& cfm)
{
    const auto name = textOf(cfm.productName);
    return toldIdentity("product " + name, {{"productName", name}}, cfm);
}

Told tell(const TarnBcGetMarketNamePidCfmS& cfm)
{
    const auto name = textOf(cfm.productName);
    const auto extended = textOf(cfm.extendedMarketName);
    return toldIdentity("product " + name + ", extended market name " + extended,
                        {{"productName", name}, {"extendedMarketName", extended}}, cfm);
}

Told tell(const TarnBcGetExtendedMarketNameCfmS& cfm)
{
    const auto extended = textOf(cfm.extendedMarketName);
    return {"extended market name " + extended, {{"extendedMarketName", extended}}};
}

Told tell(const TarnBcGetContainerPidCfmS& cfm)
{
    const auto name = textOf(cfm.containerName);
    return toldIdentity("container " + name, {{"containerName", name}}, cfm);
}

template <class Req, class Cfm, class Rej> ExitStatus read(BciClient& client, Output& output)
{
    return exchange<Req, Cfm, Rej>(client, output, tools::requestFrom<Req>(client),
                                   [](const Cfm& cfm) { return tell(cfm); });
}

class Pid : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.addOption("WHAT", m_what,
                      "hw: the unit; market: with its extended market name; extended: that name alone, "
                      "longer; container: what the unit sits in")
            .required()
            .oneOf({"hw", "market", "extended", "container"});
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        if (m_what == "hw") {
            return read<TarnBcGetHwPidReqS, TarnBcGetHwPidCfmS, TarnBcGetHwPidRejS>(client, output);
        }
        if (m_what == "market") {
            return read<TarnBcGetMarketNamePidReqS, TarnBcGetMarketNamePidCfmS, TarnBcGetMarketNamePidRejS>(
                client, output);
        }
        if (m_what == "extended") {
            return read<TarnBcGetExtendedMarketNameReqS, TarnBcGetExtendedMarketNameCfmS,
                        TarnBcGetExtendedMarketNameRejS>(client, output);
        }
        return read<TarnBcGetContainerPidReqS, TarnBcGetContainerPidCfmS, TarnBcGetContainerPidRejS>(client,
                                                                                                     output);
    }

private:
    std::string m_what;
};

template <class Cfm> std::optional<Told> toldOf(const tools::Signal& signal)
{
    const auto cfm = tools::decode<Cfm>(signal);
    return cfm ? std::optional(tell(*cfm)) : std::nullopt;
}

} // namespace

std::optional<Told> decodeIdentity(const tools::Signal& signal)
{
    switch (signal.number()) {
    case TARN_BC_GET_HW_PID_CFM:
        return toldOf<TarnBcGetHwPidCfmS>(signal);
    case TARN_BC_GET_MARKET_NAME_PID_CFM:
        return toldOf<TarnBcGetMarketNamePidCfmS>(signal);
    case TARN_BC_GET_EXTENDED_MARKET_NAME_CFM:
        return toldOf<TarnBcGetExtendedMarketNameCfmS>(signal);
    case TARN_BC_GET_CONTAINER_PID_CFM:
        return toldOf<TarnBcGetContainerPidCfmS>(signal);
    default:
        return std::nullopt;
    }
}

std::unique_ptr<Command> makePid()
{
    return std::make_unique<Pid>();
}

} // namespace merlow::bcictl
