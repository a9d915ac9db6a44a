// The unit's MMI: its mode, the maintenance state, the lamps, Here I Am.

#include "groups.h"

#include "mmiStates.h"

#include "bci/bciHereIAm.h"
#include "bci/bciMaintState.h"
#include "bci/bciMmi.h"
#include "bci/bciVisual.h"

#include <limits>
#include <vector>

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;
using tools::Failure;
using tools::Signal;

class Mmi : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.addOption("MODE", m_mode, "The mode's number").required();
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

/// The argument of a command that sets a state: one of the names, or any number that the signal holds.
template <class Number> class StateArgument {
public:
    void addTo(base::Syntax& app, StateNames states)
    {
        app.addOption("STATE", m_text, "A number, or " + nameList(states))
            .required()
            .check([states](const std::string& text) {
                return valueIn(states, text) ? std::string()
                                             : "neither a number from 0 to " + std::to_string(largest) +
                                                   " nor one of " + nameList(states) + ": " + text;
            });
        m_states = states;
    }

    [[nodiscard]] Number value() const { return static_cast<Number>(valueIn(m_states, m_text).value_or(0)); }

private:
    static constexpr Number largest = std::numeric_limits<Number>::max();

    static std::optional<std::uint32_t> valueIn(StateNames states, const std::string& text)
    {
        return stateValue(states, text, largest);
    }

    std::string m_text;
    StateNames m_states;
};

template <class Req, class Cfm, class Rej>
ExitStatus subscribe(BciClient& client, Output& output, const char* text)
{
    return exchange<Req, Cfm, Rej>(client, output, tools::requestFrom<Req>(client), [text](const Cfm&) {
        return Told{text, {{"text", text}}};
    });
}

class Maint : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.requireCommand();
        base::Syntax& set = app.addCommand("set", "Set the maintenance state");
        m_state.addTo(set, maintStates);
        m_set = &set;
        app.addCommand("follow", "Stay, and print the maintenance state and each change of it; a session "
                                 "prints them anyway from then on");
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        return m_set->isGiven() ? set(client, output) : follow(client, output);
    }

private:
    ExitStatus set(BciClient& client, Output& output) const
    {
        auto req = tools::requestFrom<TarnBcSetMaintStateReqS>(client);
        req.maintState = m_state.value();
        return exchange<TarnBcSetMaintStateReqS, TarnBcSetMaintStateCfmS, TarnBcSetMaintStateRejS>(
            client, output, req, [&req](const TarnBcSetMaintStateCfmS&) {
                return Told{"maintenance state set to " + stateText(maintStates, req.maintState),
                            {{"maintState", req.maintState},
                             {"maintStateName", stateName(maintStates, req.maintState)}}};
            });
    }

    static ExitStatus follow(BciClient& client, Output& output)
    {
        const auto status =
            subscribe<TarnBcSubscribeMaintStateReqS, TarnBcSubscribeMaintStateCfmS,
                      TarnBcSubscribeMaintStateRejS>(client, output, "subscribed to the maintenance state");
        return status == ExitStatus::done ? stayConnected(client, output) : status;
    }

    const base::Syntax* m_set = nullptr; ///< of the command line, which outlives the run
    StateArgument<std::uint32_t> m_state;
};

class Led : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.requireCommand();
        base::Syntax& set = app.addCommand("set", "Set one lamp's state");
        m_state.addTo(set, ledStates);
        m_set = &set;
        app.addCommand("get", "Read the states of the groups 1, 3 and 4 and of the support unit");
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        return m_set->isGiven() ? set(client, output) : get(client, output);
    }

private:
    ExitStatus set(BciClient& client, Output& output) const
    {
        auto req = tools::requestFrom<TarnBcSetVisualIndicationReqS>(client);
        req.visualizedState = m_state.value();
        return exchange<TarnBcSetVisualIndicationReqS, TarnBcSetVisualIndicationCfmS,
                        TarnBcSetVisualIndicationRejS>(
            client, output, req, [&req](const TarnBcSetVisualIndicationCfmS&) {
                return Told{"set to " + ledStateText(ledStates, req.visualizedState),
                            {{"visualizedState", req.visualizedState},
                             {"visualizedStateName", stateName(ledStates, req.visualizedState)}}};
            });
    }

    static ExitStatus get(BciClient& client, Output& output)
    {
        return exchange<TarnBcGetVisualIndicationReqS, TarnBcGetVisualIndicationCfmS,
                        TarnBcGetVisualIndicationRejS>(
            client, output, tools::requestFrom<TarnBcGetVisualIndicationReqS>(client),
            [](const TarnBcGetVisualIndicationCfmS& cfm) {
                Told told{"", Fields::object()};
                add(told, "group 1", "group1State", ledStates, cfm.group1State);
                add(told, "group 3", "group3State", ledStates, cfm.group3State);
                add(told, "group 4", "group4State", ledStates, cfm.group4State);
                add(told, "support unit", "supportUnitFaultState", faultIndicatorStates,
                    cfm.supportUnitFaultState);
                return told;
            });
    }

    static void add(Told& told, const char* place, const std::string& key, StateNames states,
                    std::uint16_t value)
    {
        told.text += (told.text.empty() ? "" : ", ") + std::string(place) + " " + ledStateText(states, value);
        told.fields[key] = value;
        told.fields[key + "Name"] = stateName(states, value);
    }

    const base::Syntax* m_set = nullptr; ///< of the command line, which outlives the run
    StateArgument<std::uint16_t> m_state;
};

class Indicators : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        const auto req = tools::requestFrom<TarnBcGetSpecialIndicatorReqS>(client);
        const auto answer = client.request(
            toMessage(req), {TARN_BC_GET_SPECIAL_INDICATOR_CFM, TARN_BC_GET_SPECIAL_INDICATOR_REJ});
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            output.failed(TARN_BC_GET_SPECIAL_INDICATOR_REQ, *failure);
            return failure->status;
        }
        const auto& signal = std::get<Signal>(answer);
        const auto told = decodeIndicators(signal);
        if (!told) {
            const Failure failure{ExitStatus::noAnswer,
                                  "the unit's list of indicators is longer than its signal",
                                  {},
                                  TARN_BC_GET_SPECIAL_INDICATOR_CFM};
            output.failed(TARN_BC_GET_SPECIAL_INDICATOR_REQ, failure);
            return failure.status;
        }
        output.done(TARN_BC_GET_SPECIAL_INDICATOR_REQ, TARN_BC_GET_SPECIAL_INDICATOR_CFM, told->text,
                    withReferences(signal.addressInfo(), told->fields));
        return ExitStatus::done;
    }
};

/// In host order; nothing when the signal does not hold the records that it announces.
std::optional<std::vector<TarnBcSpecialIndicatorS>> indicatorsIn(const Signal& signal)
{
    constexpr auto head = BciRecord<TarnBcGetSpecialIndicatorCfmS>::size;
    const auto header = tools::decode<TarnBcGetSpecialIndicatorCfmS>(signal);
    if (!header || (signal.bytes.size() - head) / sizeof(TarnBcSpecialIndicatorS) < header->count) {
        return std::nullopt;
    }
    std::vector<TarnBcSpecialIndicatorS> records(header->count);
    const auto* from = signal.bytes.data() + head;
    for (auto& record : records) {
        std::memcpy(&record, from, sizeof(record));
        Bci::swapOrder(record.state);
        from += sizeof(record);
    }
    return records;
}

class HereIAm : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.requireCommand();
        m_on = &app.addCommand("on", "Have the unit show itself; it ends that by itself");
        m_off = &app.addCommand("off", "Have it stop");
        app.addCommand("follow", "Stay, and print each change; a session prints them anyway from then on");
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        return m_on->isGiven() || m_off->isGiven() ? order(client, output) : follow(client, output);
    }

private:
    /// The unit takes orders only from those whom it tells of changes.
    ExitStatus order(BciClient& client, Output& output) const
    {
        if (!client.isToldOfHereIAm()) {
            const auto answer = client.request(
                toMessage(tools::requestFrom<TarnBcSubscribeHereIAmStateReqS>(client)),
                {TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_CFM, TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REJ});
            if (const auto* const failure = std::get_if<Failure>(&answer)) {
                output.failed(TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ, *failure);
                return failure->status;
            }
            client.setToldOfHereIAm();
        }
        auto req = tools::requestFrom<TarnBcOrdeHereIAmReqS>(client);
        req.state = m_on->isGiven() ? 1 : 2;
        return exchange<TarnBcOrdeHereIAmReqS, TarnBcOrdeHereIAmCfmS, TarnBcOrdeHereIAmRejS>(
            client, output, req, [](const TarnBcOrdeHereIAmCfmS& cfm) {
                const auto text = tools::textOf(cfm.text);
                return Told{"Here I Am " + stateText(hereIAmStates, cfm.status) +
                                (text.empty() ? "" : ", \"" + text + "\""),
                            {{"state", cfm.status},
                             {"stateName", stateName(hereIAmStates, cfm.status)},
                             {"text", text}}};
            });
    }

    static ExitStatus follow(BciClient& client, Output& output)
    {
        const auto status =
            subscribe<TarnBcSubscribeHereIAmStateReqS, TarnBcSubscribeHereIAmStateCfmS,
                      TarnBcSubscribeHereIAmStateRejS>(client, output, "subscribed to Here I Am");
        if (status != ExitStatus::done) {
            return status;
        }
        client.setToldOfHereIAm();
        return stayConnected(client, output);
    }

    const base::Syntax* m_on = nullptr; ///< of the command line, which outlives the run, as `m_off`
    const base::Syntax* m_off = nullptr;
};

} // namespace

std::optional<Told> decodeIndicators(const Signal& signal)
{
    const auto records = indicatorsIn(signal);
    if (!records) {
        return std::nullopt;
    }
    const auto count = records->size();
    Told told{(count == 0 ? "no" : std::to_string(count)) +
                  (count == 1 ? " special indicator" : " special indicators"),
              {{"indicators", Fields::array()}}};
    for (const auto& record : *records) {
        const auto name = tools::textOf(record.name);
        told.text += "\n  " + name + ": " + stateText(faultIndicatorStates, record.state);
        told.fields["indicators"].push_back({{"name", name},
                                             {"state", record.state},
                                             {"stateName", stateName(faultIndicatorStates, record.state)}});
    }
    return told;
}

std::unique_ptr<Command> makeMmi()
{
    return std::make_unique<Mmi>();
}

std::unique_ptr<Command> makeMaint()
{
    return std::make_unique<Maint>();
}

std::unique_ptr<Command> makeLed()
{
    return std::make_unique<Led>();
}

std::unique_ptr<Command> makeIndicators()
{
    return std::make_unique<Indicators>();
}

std::unique_ptr<Command> makeHereIAm()
{
    return std::make_unique<HereIAm>();
}

} // namespace merlow::bcictl
