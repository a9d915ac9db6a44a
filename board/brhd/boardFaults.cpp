#include "boardFaults.h"

#include "control.h"

#include <algorithm>
#include <google/protobuf/descriptor.h>
#include <limits>
#include <utility>

namespace merlow::board {

namespace bri = boardresourcehandler::bri;
using nlohmann::json;
using Result = ControlAnswer::Result;

namespace {

constexpr std::size_t maxTextLength = 256;

/// The fault that `text` names, by its name or its number.
std::optional<bri::BriFaultId> faultIdOf(const std::string& text)
{
    if (bri::BriFaultId id{}; bri::BriFaultId_Parse(text, &id)) {
        return id;
    }
    const auto number = parseNumber(text);
    if (!number || *number > static_cast<std::uint32_t>(bri::BriFaultId_MAX)) {
        return std::nullopt;
    }
    const int value = static_cast<int>(*number);
    return bri::BriFaultId_IsValid(value) ? std::optional(static_cast<bri::BriFaultId>(value)) : std::nullopt;
}

ControlAnswer noSuchFault(const std::string& text)
{
    std::string names;
    const auto* values = bri::BriFaultId_descriptor();
    for (int index = 0; index < values->value_count(); ++index) {
        names += (index == 0 ? "" : ", ") + values->value(index)->name();
    }
    return {Result::usage, "\"" + text + "\" is no fault; there are " + names, {}};
}

std::string nameOf(bri::BriFaultId id)
{
    return bri::BriFaultId_Name(id) + " (" + std::to_string(id) + ")";
}

json toJson(const BoardFault& fault)
{
    json object{{"id", static_cast<int>(fault.id)},
                {"name", bri::BriFaultId_Name(fault.id)},
                {"case", fault.faultCase}};
    if (fault.fan) {
        object["fan"] = *fault.fan;
    }
    if (fault.parent) {
        object["parent"] = *fault.parent;
    }
    if (fault.slot) {
        object["slot"] = *fault.slot;
    }
    if (fault.measured) {
        object["measured"] = true;
    }
    return object;
}

/// The optional members of a fault; what is wrong with them, or nothing.
std::optional<std::string> readMembers(const json& object, BoardFault& fault)
{
    if (object.contains("case")) {
        const auto number = numberMember(object, "case");
        if (!number) {
            return "the case must be a number from 0 to 4294967295";
        }
        fault.faultCase = *number;
    }
    if (object.contains("slot")) {
        const auto number = numberMember(object, "slot");
        if (!number || *number > static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max())) {
            return "the slot must be a number from 0 to 2147483647";
        }
        fault.slot = static_cast<std::int32_t>(*number);
    }
    for (const auto& [name, text] : {std::pair{"fan", &fault.fan}, {"parent", &fault.parent}}) {
        if (!object.contains(name)) {
            continue;
        }
        *text = textMember(object, name);
        if (!*text || (*text)->size() > maxTextLength) {
            return std::string("the ") + name + "'s product number must be a text of at most " +
                   std::to_string(maxTextLength) + " bytes";
        }
    }
    return std::nullopt;
}

} // namespace

bri::FaultInd BoardFault::indication() const
{
    bri::FaultInd ind;
    ind.set_fault_id(id);
    ind.set_fault_case(faultCase);
    if (fan) {
        ind.mutable_fan_product_info()->set_fan_product_number(*fan);
    }
    if (parent) {
        ind.mutable_fan_product_info()->set_fan_parent_product_number(*parent);
    }
    if (slot) {
        ind.mutable_fan_product_info()->set_fan_position_slot(*slot);
    }
    return ind;
}

bri::BriFaultId BoardFault::clientsId() const
{
    const bool describesFan = fan || parent || slot;
    return id == bri::EXTERNAL_FAN_HOST_DISCONNECTED && describesFan ? bri::EXTERNAL_FAN_DISCONNECTED : id;
}

BoardFaults::BoardFaults(StateStore& store, Outbox& outbox, Send send)
    : m_store(store), m_outbox(outbox), m_send(std::move(send))
{
}

void BoardFaults::load()
{
    const auto loaded = m_store.load();
    if (!loaded.error.empty()) {
        m_error = "cannot be read: " + loaded.error;
    } else if (!loaded.text.empty() && !read(loaded.text)) {
        m_error = "holds no faults that can be read";
    }
    if (!m_error.empty()) {
        BOARD_LOG(m_outbox, LogLevel::error, m_store.place() << " " << m_error);
    }
    // Who went in the meantime is reported at once.
    std::erase_if(m_told, [this](const auto& told) { return !m_outbox.watch(told.first.first); });
}

bool BoardFaults::read(const std::string& text)
{
    const json state = json::parse(text, nullptr, false);
    if (!state.is_object() || !state.value("active", json()).is_array() ||
        !state.value("told", json()).is_array()) {
        return false;
    }
    std::vector<BoardFault> active;
    for (const json& entry : state["active"]) {
        const auto id = entry.is_object() ? numberMember(entry, "id") : std::nullopt;
        const auto known = id ? faultIdOf(std::to_string(*id)) : std::nullopt;
        BoardFault fault{known.value_or(bri::HW_FAULT)};
        if (!known || readMembers(entry, fault) || active.size() >= maxActive) {
            return false;
        }
        fault.measured = entry.value("measured", json()) == true;
        active.push_back(std::move(fault));
    }
    std::map<ClientKey, FaultIds> told;
    for (const json& entry : state["told"]) {
        const auto mailbox = entry.is_object() ? numberMember(entry, "mailbox") : std::nullopt;
        const auto clientRef = entry.is_object() ? numberMember(entry, "clientRef") : std::nullopt;
        if (!mailbox || !clientRef || !entry.value("ids", json()).is_array()) {
            return false;
        }
        FaultIds& ids = told[{*mailbox, *clientRef}];
        for (const json& id : entry["ids"]) {
            const auto known = faultIdOf(id.dump());
            if (!known) {
                return false;
            }
            ids.push_back(*known);
        }
    }
    m_active = std::move(active);
    m_told = std::move(told);
    return true;
}

void BoardFaults::save()
{
    json state{{"active", json::array()}, {"told", json::array()}};
    for (const BoardFault& fault : m_active) {
        state["active"].push_back(toJson(fault));
    }
    for (const auto& [client, ids] : m_told) {
        state["told"].push_back({{"mailbox", client.first}, {"clientRef", client.second}, {"ids", ids}});
    }
    m_error = m_store.save(state.dump(-1, ' ', false, json::error_handler_t::replace) + "\n");
    if (!m_error.empty()) {
        m_error = "cannot be written: " + m_error;
        BOARD_LOG(m_outbox, LogLevel::error, m_store.place() << " " << m_error);
    }
}

void BoardFaults::remember()
{
    FaultIds ids;
    for (const BoardFault& fault : m_active) {
        ids.push_back(fault.clientsId());
    }
    for (const auto& [ref, subscriber] : m_subscribers) {
        if (ids.empty()) {
            m_told.erase(keyOf(subscriber.connection));
        } else {
            m_told[keyOf(subscriber.connection)] = ids;
        }
    }
    save();
}

void BoardFaults::subscribe(const BrhConnection& connection, std::uint32_t procedureRef)
{
    const Subscriber subscriber{connection, procedureRef};
    m_subscribers.insert_or_assign(connection.ref, subscriber);
    if (const auto told = m_told.find(keyOf(connection)); told != m_told.end()) {
        for (const FaultId id : told->second) {
            sendCease(subscriber, id);
        }
    }
    remember();
    for (const BoardFault& fault : m_active) {
        sendRaise(subscriber, fault);
    }
}

void BoardFaults::connectionEnded(std::uint32_t connectionRef)
{
    m_subscribers.erase(connectionRef);
    forgetOneTooMany();
}

void BoardFaults::forgetOneTooMany()
{
    if (m_told.size() <= maxRemembered + m_subscribers.size()) {
        return;
    }
    std::set<ClientKey> subscribed;
    for (const auto& [ref, subscriber] : m_subscribers) {
        subscribed.insert(keyOf(subscriber.connection));
    }
    const auto forgotten = std::find_if(m_told.begin(), m_told.end(),
                                        [&](const auto& told) { return !subscribed.contains(told.first); });
    BOARD_LOG(m_outbox, LogLevel::abnormal,
              "ABN: too many clients to remember, forgot what the client "
                  << forgotten->first.second << " at " << hex(forgotten->first.first) << " was told");
    m_told.erase(forgotten);
}

void BoardFaults::clientGone(MailboxId mailbox)
{
    if (std::erase_if(m_told, [mailbox](const auto& told) { return told.first.first == mailbox; }) != 0) {
        save();
    }
}

ControlAnswer BoardFaults::control(const json& request)
{
    const std::string action = textMember(request, "action").value_or("");
    if (action == "raise") {
        return raise(request);
    }
    if (action == "cease") {
        return cease(request);
    }
    if (action == "list") {
        json list = json::array();
        for (const BoardFault& fault : m_active) {
            list.push_back(toJson(fault));
        }
        return {Result::done, "", std::move(list)};
    }
    return {Result::usage, "the action is none of raise, cease, list", {}};
}

ControlAnswer BoardFaults::raise(const json& request)
{
    const std::string wanted = textMember(request, "id").value_or("");
    const auto id = faultIdOf(wanted);
    if (!id) {
        return noSuchFault(wanted);
    }
    BoardFault fault{*id};
    if (const auto objection = readMembers(request, fault)) {
        return {Result::usage, *objection, {}};
    }
    if (!add(fault)) {
        return {Result::refused,
                "there are " + std::to_string(maxActive) + " active faults; cease one first",
                {}};
    }
    return {Result::done, nameOf(*id) + " raised, case " + std::to_string(fault.faultCase), {}};
}

ControlAnswer BoardFaults::cease(const json& request)
{
    const std::string wanted = textMember(request, "id").value_or("");
    const auto id = faultIdOf(wanted);
    if (!id) {
        return noSuchFault(wanted);
    }
    const auto ceased = std::find_if(m_active.begin(), m_active.end(),
                                     [id](const BoardFault& fault) { return fault.id == *id; });
    if (ceased == m_active.end()) {
        return {Result::notFound, nameOf(*id) + " is not active", {}};
    }
    const std::uint32_t faultCase = ceased->faultCase;
    remove(ceased);
    return {Result::done, nameOf(*id) + " ceased, case " + std::to_string(faultCase), {}};
}

bool BoardFaults::add(const BoardFault& fault)
{
    if (m_active.size() >= maxActive) {
        return false;
    }
    m_active.push_back(fault);
    remember();
    for (const auto& [ref, subscriber] : m_subscribers) {
        sendRaise(subscriber, fault);
    }
    return true;
}

void BoardFaults::remove(std::vector<BoardFault>::iterator ceased)
{
    const FaultId clientsId = ceased->clientsId();
    const auto isAlike = [clientsId](const BoardFault& fault) {
        return fault.clientsId() == clientsId;
    };
    // A cease takes the first fault that a client holds under the id. When that is another one, all of them
    // go and those that stand come back.
    const bool isFirst = std::find_if(m_active.begin(), m_active.end(), isAlike) == ceased;
    const auto ceases = isFirst ? 1 : std::count_if(m_active.begin(), m_active.end(), isAlike);
    m_active.erase(ceased);
    for (const auto& [ref, subscriber] : m_subscribers) {
        for (auto left = ceases; left > 0; --left) {
            sendCease(subscriber, clientsId);
        }
        for (const BoardFault& fault : m_active) {
            if (!isFirst && isAlike(fault)) {
                sendRaise(subscriber, fault);
            }
        }
    }
    remember();
}

std::optional<std::uint32_t> BoardFaults::measuredCase(FaultId id) const
{
    const auto measured = std::find_if(m_active.begin(), m_active.end(), [id](const BoardFault& fault) {
        return fault.measured && fault.id == id;
    });
    return measured == m_active.end() ? std::nullopt : std::optional(measured->faultCase);
}

bool BoardFaults::raiseMeasured(FaultId id, std::uint32_t faultCase)
{
    return add({.id = id, .faultCase = faultCase, .measured = true});
}

void BoardFaults::ceaseMeasured(FaultId id)
{
    const auto ceased = std::find_if(m_active.begin(), m_active.end(), [id](const BoardFault& fault) {
        return fault.measured && fault.id == id;
    });
    if (ceased != m_active.end()) {
        remove(ceased);
    }
}

void BoardFaults::sendRaise(const Subscriber& subscriber, const BoardFault& fault) const
{
    m_send(subscriber.connection, subscriber.procedureRef, bri::FaultInd::MESSAGE_NUMBER, fault.indication());
}

void BoardFaults::sendCease(const Subscriber& subscriber, FaultId clientsId) const
{
    bri::FaultCeaseInd ind;
    ind.set_fault_id(clientsId);
    m_send(subscriber.connection, subscriber.procedureRef, bri::FaultCeaseInd::MESSAGE_NUMBER, ind);
}

void BoardFaults::addStatus(json& status) const
{
    json& faults = status["faults"] = json::array();
    for (const BoardFault& fault : m_active) {
        faults.push_back(toJson(fault));
    }
    json& subscribers = status["faultSubscribers"] = json::array();
    for (const auto& [ref, subscriber] : m_subscribers) {
        subscribers.push_back({{"connectionRef", ref}, {"procedureRef", subscriber.procedureRef}});
    }
    status["faultMemory"] = {{"place", m_store.place()}, {"clients", m_told.size()}, {"error", m_error}};
}

} // namespace merlow::board
