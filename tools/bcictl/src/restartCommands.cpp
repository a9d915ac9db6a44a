// Restarts of the board, and the supervision of links, which the unit does not offer.

#include "groups.h"

#include "bci/bciLinkSupervision.h"
#include "bci/bciRestart.h"

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;
using tools::Failure;

/// What the unit makes of an order that names no code.
constexpr std::int16_t plainRestartCode = 401;

class Restart : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        auto code = app.addOption("--code", m_code, "The restart code");
        auto rank = app.addOption("--rank", m_rank, "The restart rank").range(1, 5);
        auto label = app.addOption("--label", m_label, "The label that the restart is recorded with");
        code.needs(rank).needs(label);
        rank.needs(code).needs(label);
        label.needs(code).needs(rank);
        app.addOption("--info", m_info, "What the traces of the unit say of the restart");
        app.addFlag("--wait", m_waits,
                    "Stay until the unit is back; the notification, its going and its coming back are each "
                    "waited for as long as --timeout says");
        app.onGiven([this, code] {
            constexpr auto longest = sizeof(TarnBcRestartBoardWithRankAndLabelFwdS::traceInfo) - 1;
            m_hasRank = code.isGiven();
            return m_hasRank && m_info.size() > longest
                       ? "--info: at most " + std::to_string(longest) + " characters with --rank"
                       : std::string();
        });
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        if (const auto failure = client.post(order(client))) {
            return fail(output, *failure);
        }
        if (!m_waits) {
            output.done(number(), 0, "restart ordered; such an order has no answer",
                        withReferences(client.references(), {{"restartCode", m_code}}));
            return ExitStatus::done;
        }
        return follow(client, output);
    }

private:
    [[nodiscard]] std::uint32_t number() const
    {
        return m_hasRank ? TARN_BC_RESTART_BOARD_WITH_RANK_AND_LABEL_FWD : TARN_BC_RESTART_BOARD_FWD;
    }

    [[nodiscard]] MnetMsgPtr order(const BciClient& client) const
    {
        if (!m_hasRank) {
            return toMessage(tools::requestFrom<TarnBcRestartBoardFwdS>(client), m_info);
        }
        auto fwd = tools::requestFrom<TarnBcRestartBoardWithRankAndLabelFwdS>(client);
        fwd.restartCode = m_code;
        fwd.restartRank = m_rank;
        m_info.copy(fwd.traceInfo, sizeof(fwd.traceInfo) - 1);
        return toMessage(fwd, m_label);
    }

    ExitStatus follow(BciClient& client, Output& output) const
    {
        const auto answer = client.awaitAnswer(number(), {TARN_BC_RESTART_BOARD_NOTIFICATION_IND});
        if (const auto failure = std::get_if<Failure>(&answer)) {
            return fail(output, *failure);
        }
        tellIndication(output, std::get<tools::Signal>(answer));
        if (!client.awaitLoss()) {
            return fail(output, {ExitStatus::noAnswer, "the unit did not go away in time", {}});
        }
        output.event("down", "the unit went down", Fields::object());
        tools::UnitClient next(client.unitName(), client.timeout());
        if (const auto failure = next.open()) {
            return fail(output, *failure);
        }
        output.done(number(), TARN_BC_RESTART_BOARD_NOTIFICATION_IND, "the unit is back",
                    withReferences(client.references(), {{"restartCode", m_code}}));
        return ExitStatus::done;
    }

    ExitStatus fail(Output& output, const Failure& failure) const
    {
        output.failed(number(), failure);
        return failure.status;
    }

    std::int16_t m_code = plainRestartCode;
    std::int16_t m_rank = 0;
    std::string m_label;
    std::string m_info;
    bool m_hasRank = false;
    bool m_waits = false;
};

class NotifyRestart : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.addOption("VALUE", m_value, "What is announced, a number from 0 to 4294967295").required();
        app.addOption("REASON", m_reason, "The reason for the restart").required();
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        auto req = tools::requestFrom<TarnBcNotifyRestartReqS>(client);
        req.notifyValue = m_value;
        return exchange<TarnBcNotifyRestartReqS, TarnBcNotifyRestartCfmS, TarnBcNotifyRestartRejS>(
            client, output, toMessage(req, m_reason), [this](const TarnBcNotifyRestartCfmS&) {
                return Told{"restart announced with " + std::to_string(m_value),
                            {{"notifyValue", m_value}, {"reason", m_reason}}};
            });
    }

private:
    std::uint32_t m_value = 0;
    std::string m_reason;
};

class LinkSupervision : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        const auto answer = client.request(::toMessage(tools::requestFrom<TarnBcLinkSupervisionReqS>(client)),
                                           {TARN_BC_LINK_SUPERVISION_REJ});
        const auto failure = std::get_if<Failure>(&answer);
        if (failure == nullptr) { // the only answer that there is is a reject
            return ExitStatus::noAnswer;
        }
        output.failed(TARN_BC_LINK_SUPERVISION_REQ, *failure);
        return failure->status;
    }
};

} // namespace

std::unique_ptr<Command> makeRestart()
{
    return std::make_unique<Restart>();
}

std::unique_ptr<Command> makeNotifyRestart()
{
    return std::make_unique<NotifyRestart>();
}

std::unique_ptr<Command> makeLinkSupervision()
{
    return std::make_unique<LinkSupervision>();
}

} // namespace merlow::bcictl
