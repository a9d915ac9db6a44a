/// What a command of bcictl is, and the table of all of them.
#pragma once

#include "bciClient.h"
#include "bciOutput.h"
#include "command.h"

#include <functional>

namespace merlow::bcictl {

using tools::Fields;
using tools::Output;
using Command = tools::Command<tools::BciClient>;
using CommandRow = tools::CommandRow<tools::BciClient>;

/// All commands, in the order in which help lists them.
tools::CommandTable<tools::BciClient> commandTable();

/// Tells what comes until the unit goes, nothing can be told any more, or a signal ends the process. Not in a
/// session, which does so by itself.
[[nodiscard]] tools::ExitStatus stayConnected(tools::BciClient& client, Output& output);

/// A record followed by a terminated text.
template <class R> [[nodiscard]] MnetMsgPtr toMessage(const R& record, const std::string& text)
{
    MnetMsgPtr msg = allocMsg(BciRecord<R>::size + text.size() + 1, BciRecord<R>::number);
    const MnetMsgPtr head = ::toMessage(record);
    if (!msg || !head) {
        return nullptr;
    }
    auto* const bytes = reinterpret_cast<unsigned char*>(msg.get());
    std::memcpy(bytes, head.get(), BciRecord<R>::size);
    std::memcpy(bytes + BciRecord<R>::size, text.c_str(), text.size() + 1);
    return msg;
}

/// Sends `msg`, a `Req`, awaits `Cfm` or one of `Rej`, and tells how it went: the failure, or what `tell`
/// makes of the confirm.
template <class Req, class Cfm, class... Rej>
[[nodiscard]] tools::ExitStatus exchange(tools::BciClient& client, Output& output, MnetMsgPtr msg,
                                         const std::function<Told(const Cfm&)>& tell)
{
    const auto answer = client.request(std::move(msg), {BciRecord<Cfm>::number, BciRecord<Rej>::number...});
    if (const auto* const failure = std::get_if<tools::Failure>(&answer)) {
        output.failed(BciRecord<Req>::number, *failure);
        return failure->status;
    }
    const auto& signal = std::get<tools::Signal>(answer);
    const auto cfm = tools::decode<Cfm>(signal);
    if (!cfm) { // the client lets no short confirm through
        return tools::ExitStatus::noAnswer;
    }
    const Told told = tell(*cfm);
    output.done(BciRecord<Req>::number, signal.number(), told.text,
                withReferences(signal.addressInfo(), told.fields));
    return tools::ExitStatus::done;
}

template <class Req, class Cfm, class... Rej>
[[nodiscard]] tools::ExitStatus exchange(tools::BciClient& client, Output& output, const Req& req,
                                         const std::function<Told(const Cfm&)>& tell)
{
    return exchange<Req, Cfm, Rej...>(client, output, ::toMessage(req), tell);
}

} // namespace merlow::bcictl
