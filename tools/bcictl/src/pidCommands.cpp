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

ExitStatus readHwPid(BciClient& client, Output& output)
{
    return exchange<TarnBcGetHwPidReqS, TarnBcGetHwPidCfmS, TarnBcGetHwPidRejS>(
        client, output, tools::requestFrom<TarnBcGetHwPidReqS>(client), [](const TarnBcGetHwPidCfmS& cfm) {
            const auto name = textOf(cfm.productName);
            return toldIdentity("product " + name, {{"productName", name}}, cfm);
        });
}

ExitStatus readMarketName(BciClient& client, Output& output)
{
    return exchange<TarnBcGetMarketNamePidReqS, TarnBcGetMarketNamePidCfmS, TarnBcGetMarketNamePidRejS>(
        client, output, tools::requestFrom<TarnBcGetMarketNamePidReqS>(client),
        [](const TarnBcGetMarketNamePidCfmS& cfm) {
            const auto name = textOf(cfm.productName);
            const auto extended = textOf(cfm.extendedMarketName);
            return toldIdentity("product " + name + ", extended market name " + extended,
                                {{"productName", name}, {"extendedMarketName", extended}}, cfm);
        });
}

ExitStatus readExtendedMarketName(BciClient& client, Output& output)
{
    return exchange<TarnBcGetExtendedMarketNameReqS, TarnBcGetExtendedMarketNameCfmS,
                    TarnBcGetExtendedMarketNameRejS>(
        client, output, tools::requestFrom<TarnBcGetExtendedMarketNameReqS>(client),
        [](const TarnBcGetExtendedMarketNameCfmS& cfm) {
            const auto extended = textOf(cfm.extendedMarketName);
            return Told{"extended market name " + extended, {{"extendedMarketName", extended}}};
        });
}

ExitStatus readContainerPid(BciClient& client, Output& output)
{
    return exchange<TarnBcGetContainerPidReqS, TarnBcGetContainerPidCfmS, TarnBcGetContainerPidRejS>(
        client, output, tools::requestFrom<TarnBcGetContainerPidReqS>(client),
        [](const TarnBcGetContainerPidCfmS& cfm) {
            const auto name = textOf(cfm.containerName);
            return toldIdentity("container " + name, {{"containerName", name}}, cfm);
        });
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
            return readHwPid(client, output);
        }
        if (m_what == "market") {
            return readMarketName(client, output);
        }
        return m_what == "extended" ? readExtendedMarketName(client, output)
                                    : readContainerPid(client, output);
    }

private:
    std::string m_what;
};

} // namespace

std::unique_ptr<Command> makePid()
{
    return std::make_unique<Pid>();
}

} // namespace merlow::bcictl
