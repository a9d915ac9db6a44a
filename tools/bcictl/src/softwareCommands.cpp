// The software store: what runs, what shall run, what there is, and who holds the store.

#include "groups.h"

#include "storeLease.h"

#include "bci/bciSoftware.h"

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;
using tools::Failure;
using tools::Signal;

class Running : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        return exchange<TarnBcGetRunningLmcReqS, TarnBcGetRunningLmcCfmS, TarnBcGetRunningLmcRejS>(
            client, output, tools::requestFrom<TarnBcGetRunningLmcReqS>(client),
            [](const TarnBcGetRunningLmcCfmS& cfm) {
                const auto software = tools::textOf(cfm.runningSoftware);
                return Told{"running " + software, {{"runningSoftware", software}}};
            });
    }
};

class Select : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.addOption("NUMBER_REV", m_software, "Product number, '_' and revision of a stored load module")
            .required();
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        StoreLease lease(client);
        if (const auto failure = lease.acquire()) {
            return tell(output, *failure);
        }
        const auto answer =
            client.request(toMessage(tools::requestFrom<TarnBcSelectLmcReqS>(client), m_software),
                           {TARN_BC_SELECT_LMC_CFM, TARN_BC_SELECT_LMC_REJ});
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            return tell(output, failedStep("selecting", TARN_BC_SELECT_LMC_REQ, *failure));
        }
        if (const auto failure = lease.release()) {
            return tell(output, *failure);
        }
        output.done(TARN_BC_SELECT_LMC_REQ, TARN_BC_SELECT_LMC_CFM,
                    m_software + " runs from the next restart on",
                    withReferences(client.references(), {{"software", m_software}}));
        return ExitStatus::done;
    }

private:
    std::string m_software;
};

class Components : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        StoreLease lease(client);
        if (const auto failure = lease.acquire()) {
            return tell(output, *failure);
        }
        const auto answer = client.request(::toMessage(tools::requestFrom<TarnBcSwCompListReqS>(client)),
                                           {TARN_BC_SW_COMP_LIST_CFM, TARN_BC_SW_COMP_LIST_REJ});
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            if (failure->status != ExitStatus::rejected) {
                (void)acknowledge(client, true); // it may come later
            }
            return tell(output, failedStep("asking for the list", TARN_BC_SW_COMP_LIST_REQ, *failure));
        }
        if (auto failure = readPieces(client)) {
            (void)acknowledge(client, true);
            if (!m_list.empty()) {
                output.event("partOfList", m_list, {{"list", m_list}});
            }
            return tell(output, *failure);
        }
        if (const auto failure = lease.release()) {
            return tell(output, *failure);
        }
        output.done(TARN_BC_SW_COMP_LIST_REQ, TARN_BC_SW_COMP_LIST_DATA, m_list,
                    withReferences(client.references(), {{"list", m_list}}));
        return ExitStatus::done;
    }

private:
    std::optional<StepFailure> readPieces(BciClient& client)
    {
        constexpr char step[] = "reading the list";
        bool isLast = false;
        std::uint32_t sent = TARN_BC_SW_COMP_LIST_REQ;
        while (!isLast) {
            const auto answer = client.awaitAnswer(sent, {TARN_BC_SW_COMP_LIST_DATA});
            if (const auto* const failure = std::get_if<Failure>(&answer)) {
                return failedStep(step, sent, *failure);
            }
            const auto& signal = std::get<Signal>(answer);
            const auto piece = tools::decode<TarnBcSwCompListDataS>(signal);
            constexpr auto head = BciRecord<TarnBcSwCompListDataS>::size;
            if (!piece || piece->length > signal.bytes.size() - head) {
                return failedStep(step, sent,
                                  {ExitStatus::noAnswer,
                                   "a piece is longer than its signal",
                                   {},
                                   TARN_BC_SW_COMP_LIST_DATA});
            }
            m_list += listText(std::span(signal.bytes).subspan(head, piece->length));
            isLast = piece->end != 0;
            sent = TARN_BC_SW_COMP_LIST_ACK;
            if (const auto failure = acknowledge(client, false)) {
                return failedStep(step, sent, *failure);
            }
        }
        return std::nullopt;
    }

    static std::optional<Failure> acknowledge(BciClient& client, bool givesUp)
    {
        auto ack = tools::requestFrom<TarnBcSwCompListAckS>(client);
        ack.abort = givesUp ? 1 : 0;
        return client.post(::toMessage(ack));
    }

    std::string m_list;
};

class Acquire : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        if (client.holdsStore()) {
            output.misused("the store is held already");
            return ExitStatus::usage;
        }
        if (const auto failure = acquireStore(client)) {
            return tell(output, *failure);
        }
        const bool isSession = client.hasIndicationHandler();
        output.done(TARN_BC_ACQUIRE_RESOURCE_REQ, TARN_BC_ACQUIRE_RESOURCE_CFM,
                    isSession ? "store acquired" : "store acquired; it is held until this program ends",
                    withReferences(client.references(), Fields::object()));
        return stayConnected(client, output);
    }
};

class Release : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        if (!client.hasIndicationHandler()) {
            output.misused("release is for a session: the end of any other call gives the store back");
            return ExitStatus::usage;
        }
        if (const auto failure = releaseStore(client)) {
            return tell(output, *failure);
        }
        output.done(TARN_BC_RELEASE_RESOURCE_REQ, TARN_BC_RELEASE_RESOURCE_CFM, "store released",
                    withReferences(client.references(), Fields::object()));
        return ExitStatus::done;
    }
};

} // namespace

std::string listText(std::span<const std::uint8_t> bytes)
{
    std::string text(bytes.begin(), bytes.end());
    for (char& character : text) {
        const bool isPrintable = character >= ' ' && character <= '~'; // bytes above steer some terminals too
        if (!isPrintable && character != '\n' && character != '\t') {
            character = '?';
        }
    }
    return text;
}

std::unique_ptr<Command> makeRunning()
{
    return std::make_unique<Running>();
}

std::unique_ptr<Command> makeSelect()
{
    return std::make_unique<Select>();
}

std::unique_ptr<Command> makeComponents()
{
    return std::make_unique<Components>();
}

std::unique_ptr<Command> makeAcquire()
{
    return std::make_unique<Acquire>();
}

std::unique_ptr<Command> makeRelease()
{
    return std::make_unique<Release>();
}

} // namespace merlow::bcictl
