#include "bcSession.h"

#include "insist.h"
#include "merlowTrace.h"

#include <array>

BcClientInfo::BcClientInfo(std::uint32_t mailbox, std::int32_t client, std::int32_t server,
                           std::uint16_t revision, std::uint32_t extra)
    : mailboxId(mailbox), clientRef(client), serverRef(server), protocolRev(revision), extraRef(extra)
{
}

BcSession::BcSession(std::uint32_t mailbox, std::int32_t client, std::int32_t server, std::uint16_t revision,
                     const std::string& name, std::uint32_t extra)
    : BcClientInfo(mailbox, client, server, revision, extra), mboxName(name)
{
    const bool isWatched = insist([this] {
        monitorId = mnet_monitor(mailboxId, nullptr);
        return monitorId != MNET_MBOX_NONE;
    });
    if (!isWatched) {
        SCRY_TRACE(1, "ABN: Nobody will tell of the end of mbox: 0x" << std::hex << mailboxId);
    }
    SCRY_OBJ_TRACE(6, "BcSession " << mboxName << " for mbox: 0x" << std::hex << mailboxId);
}

BcSession::~BcSession()
{
    SCRY_OBJ_TRACE(6, "~BcSession " << mboxName << " for mbox: 0x" << std::hex << mailboxId);
    mnet_unmonitor(monitorId);
}

std::string BcSession::getBcStateName() const
{
    static constexpr std::array<const char*, 3> names{"DISABLED", "STARTING", "OPERATIONAL"};
    const auto index = static_cast<std::size_t>(bcState);
    return index < names.size() ? names[index] : "Unknown";
}

mnet_msg* BcSession::getCfmPending() const
{
    if (!cfmPending) {
        SCRY_TRACE(4, "No TARN_BC_CONN_ESTABLISH_CFM had been received to forward!");
    }
    return cfmPending.get();
}

void BcSession::setCfmPending(mnet_msg* msg)
{
    cfmPending.reset(msg);
}

FwdMbox* BcSession::getFwdMbox() const
{
    if (!fwdMbox) {
        SCRY_TRACE(4, "ABN: Forward mailbox for ID " << mailboxId << " is null!");
    }
    return fwdMbox.get();
}

void BcSession::setFwdMbox(FwdMbox* mbox)
{
    fwdMbox.reset(mbox);
}

mnet_mbox_id_t BcSession::getFwdMailboxId() const
{
    return fwdMbox ? fwdMbox->getMailbox() : MNET_MBOX_NONE;
}

void BcSession::addProcedureRefInfo(unsigned int signalNumber, unsigned int procedureRef)
{
    if (!procedureRefInfoMap.emplace(signalNumber, procedureRef).second) {
        SCRY_TRACE(4, "ABN: Cannot add procedureRef : ("
                          << procedureRef << ") to procedureRefInfoMap.Key Value with signal Number: ("
                          << signalNumber << ") already exist.");
    }
}

bool BcSession::isProcedureRefInfoExist(unsigned int signalNumber) const
{
    return procedureRefInfoMap.contains(signalNumber);
}

unsigned int BcSession::getProcedureRef(unsigned int signalNumber) const
{
    const auto it = procedureRefInfoMap.find(signalNumber);
    return it == procedureRefInfoMap.end() ? 0 : it->second;
}

void BcSession::deleteProcedureRefInfo(unsigned int signalNumber)
{
    procedureRefInfoMap.erase(signalNumber);
}
