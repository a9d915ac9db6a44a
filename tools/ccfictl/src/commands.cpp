#include "commands.h"

#include <array>
#include <cstdio>
#include <limits>

namespace merlow::ccfictl {

namespace {

using tools::ExitStatus;
using tools::Failure;
using tools::Fields;
using tools::Output;
using tools::Signal;
using Command = tools::Command<Forwarder>;

std::string hex(std::uint32_t number)
{
    char text[16];
    (void)std::snprintf(text, sizeof(text), "0x%x", number);
    return text;
}

/// An option or argument that takes a number up to `most`, decimal or hexadecimal.
template <class N, class Target>
base::Option addNumber(base::Syntax& app, const char* name, Target& target, const char* help)
{
    return app
        .addReader(
            name,
            [&target](const std::string& text) {
                target = static_cast<N>(tools::parseNumber(text).value_or(0));
                return std::string();
            },
            help)
        .check([](const std::string& text) {
            const auto number = tools::parseNumber(text);
            constexpr std::uint32_t most = std::numeric_limits<N>::max();
            return number && *number <= most ? std::string()
                                             : "no number from 0 to " + std::to_string(most) + ": " + text;
        })
        .valueName("NUMBER");
}

void addOffer(base::Syntax& app, Forwarder::Offer& offer)
{
    addNumber<std::uint32_t>(app, "--client-ref", offer.clientRef,
                             "The client's own reference of a new connection (1)");
    app.addOption("--rev", offer.revisions, "A protocol revision to offer, any number of times (1)")
        .oneValueEach();
}

ExitStatus connectTelling(Forwarder& client, Output& output, const Forwarder::Offer& offer, bool tellsSuccess)
{
    const auto answer = client.connect(offer);
    if (const auto* const failure = std::get_if<Failure>(&answer)) {
        output.failed(CCFI_BC_CONN_ESTABLISH_REQ, *failure);
        return failure->status;
    }
    const auto cfm = tools::decode<CcfiBcConnEstablishCfmS>(std::get<Signal>(answer));
    if (!cfm) { // the client lets no short confirm through
        return ExitStatus::noAnswer;
    }
    if (tellsSuccess) {
        output.done(CCFI_BC_CONN_ESTABLISH_REQ, CCFI_BC_CONN_ESTABLISH_CFM,
                    "connected, server reference " + hex(cfm->connectionRef) + ", revision " +
                        std::to_string(cfm->selectedProtocolRevision),
                    {{"serverRef", cfm->connectionRef},
                     {"clientRef", offer.clientRef},
                     {"revision", cfm->selectedProtocolRevision}});
    }
    return ExitStatus::done;
}

class Connect : public Command {
public:
    void addOptions(base::Syntax& app) override { addOffer(app, m_offer); }

    ExitStatus run(Forwarder& client, Output& output) override
    {
        return connectTelling(client, output, m_offer, true);
    }

private:
    Forwarder::Offer m_offer;
};

/// What goes over a connection: the one that was named, else the newest, else a new one.
class FaultCommand : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        addNumber<std::uint16_t>(
            app, "ID", m_faultId,
            "The fault's id; the unit takes 0x300, 0x301, 0x502, 0x521, 0x522, 0x710 and 0x711")
            .required();
        addNumber<std::uint32_t>(
            app, "--ref", m_ref,
            "The server's reference of the connection (default: the newest, or a new one)");
        addOffer(app, m_offer);
    }

    ExitStatus run(Forwarder& client, Output& output) override
    {
        if (!m_ref) {
            if (client.connections().empty()) {
                const auto status = connectTelling(client, output, m_offer, false);
                if (status != ExitStatus::done) {
                    return status;
                }
            }
        }
        m_serverRef = m_ref ? *m_ref : client.connections().back();
        return forward(client, output);
    }

protected:
    virtual ExitStatus forward(Forwarder& client, Output& output) = 0;

    static ExitStatus tell(Output& output, std::uint32_t sent, const std::optional<Failure>& failure,
                           const std::string& text, const Fields& fields)
    {
        if (failure) {
            output.failed(sent, *failure);
            return failure->status;
        }
        output.done(sent, 0, text, fields);
        return ExitStatus::done;
    }

    std::uint16_t m_faultId = 0;
    std::uint32_t m_serverRef = 0;

private:
    std::optional<std::uint32_t> m_ref;
    Forwarder::Offer m_offer;
};

class Raise : public FaultCommand {
public:
    void addOptions(base::Syntax& app) override
    {
        FaultCommand::addOptions(app);
        constexpr std::size_t room = sizeof(CcfiBcFaultFwdS::faultDescription) - 1;
        app.addOption("--description", m_description, "The fault's text, at most 111 bytes")
            .check([](const std::string& text) {
                return text.size() <= room ? std::string() : "longer than 111 bytes: " + text;
            });
        addNumber<std::uint32_t>(app, "--recovery-time", m_recoveryTime, "The fault's recovery time (0)");
        app.addOption("--label", m_label, "The label of the faulty hardware");
    }

private:
    ExitStatus forward(Forwarder& client, Output& output) override
    {
        CcfiBcFaultFwdS fault{};
        fault.connectionRef = m_serverRef;
        fault.faultId = m_faultId;
        fault.recoveryTime = m_recoveryTime;
        m_description.copy(reinterpret_cast<char*>(fault.faultDescription),
                           sizeof(fault.faultDescription) - 1);
        return tell(output, CCFI_BC_FAULT_FWD, client.raise(fault, m_label),
                    "fault " + hex(m_faultId) + " sent over server reference " + hex(m_serverRef),
                    {{"serverRef", m_serverRef},
                     {"faultId", m_faultId},
                     {"description", m_description},
                     {"recoveryTime", m_recoveryTime},
                     {"hwFaultLabel", m_label}});
    }

    std::string m_description;
    std::uint32_t m_recoveryTime = 0;
    std::string m_label;
};

class Cease : public FaultCommand {
private:
    ExitStatus forward(Forwarder& client, Output& output) override
    {
        CcfiBcFaultceaseFwdS fault{};
        fault.connectionRef = m_serverRef;
        fault.faultId = m_faultId;
        return tell(output, CCFI_BC_FAULTCEASE_FWD, client.cease(fault),
                    "end of fault " + hex(m_faultId) + " sent over server reference " + hex(m_serverRef),
                    {{"serverRef", m_serverRef}, {"faultId", m_faultId}});
    }
};

class Close : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        addNumber<std::uint32_t>(app, "REF", m_ref,
                                 "The server's reference of the connection (default: the newest)");
    }

    ExitStatus run(Forwarder& client, Output& output) override
    {
        if (!m_ref && client.connections().empty()) {
            output.misused("no connection is open; name one by its server reference");
            return ExitStatus::usage;
        }
        const std::uint32_t serverRef = m_ref ? *m_ref : client.connections().back();
        const auto answer = client.close(serverRef);
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            output.failed(CCFI_BC_CONN_CLOSE_REQ, *failure);
            return failure->status;
        }
        const auto cfm = tools::decode<CcfiBcConnCloseCfmS>(std::get<Signal>(answer));
        if (!cfm) { // the client lets no short confirm through
            return ExitStatus::noAnswer;
        }
        output.done(CCFI_BC_CONN_CLOSE_REQ, CCFI_BC_CONN_CLOSE_CFM,
                    "server reference " + hex(serverRef) + " closed, client reference " +
                        std::to_string(cfm->connectionRef),
                    {{"serverRef", serverRef}, {"clientRef", cfm->connectionRef}});
        return ExitStatus::done;
    }

private:
    std::optional<std::uint32_t> m_ref;
};

template <class C> std::unique_ptr<Command> make()
{
    return std::make_unique<C>();
}

constexpr std::array commands{
    tools::CommandRow<Forwarder>{"connect", "Open a connection and print its server reference",
                                 make<Connect>},
    tools::CommandRow<Forwarder>{"raise", "Forward a fault", make<Raise>},
    tools::CommandRow<Forwarder>{"cease", "Forward the end of a fault", make<Cease>},
    tools::CommandRow<Forwarder>{"close", "Close a connection", make<Close>},
};

} // namespace

tools::CommandTable<Forwarder> commandTable()
{
    return commands;
}

} // namespace merlow::ccfictl
