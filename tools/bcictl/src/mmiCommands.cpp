// The MMI mode.

#include "groups.h"

#include "bci/bciMmi.h"

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;

class Mmi : public Command {
public:
    void addOptions(CLI::App& app) override
    {
        app.add_option("MODE", m_mode, "The mode's number")->required();
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        auto req = tools::requestFrom<TarnBcSelectMmiReqS>(client);
        req.mmiMode = m_mode;
        return exchange<TarnBcSelectMmiReqS, TarnBcSelectMmiCfmS,
                        TarnBcSelectMmiRejS>(client, output, req, [&req](const TarnBcSelectMmiCfmS&) {
            return Told{"MMI mode " + std::to_string(req.mmiMode) + " selected", {{"mmiMode", req.mmiMode}}};
        });
    }

private:
    std::uint32_t m_mode = 0;
};

} // namespace

std::unique_ptr<Command> makeMmi()
{
    return std::make_unique<Mmi>();
}

} // namespace merlow::bcictl
