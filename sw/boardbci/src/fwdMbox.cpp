#include "fwdMbox.h"

#include "merlowTrace.h"

FwdMbox::FwdMbox(mnet_mbox_id_t parent, const std::string& name) : m_parentMbox(parent), m_name(name) {}

FwdMbox::~FwdMbox()
{
    stop(true);
}

int FwdMbox::start()
{
    if (m_mailbox != MNET_MBOX_NONE) {
        return 0;
    }
    m_mailbox = mnet_clone_mailbox(m_parentMbox, m_name.c_str());
    if (m_mailbox == MNET_MBOX_NONE) {
        SCRY_TRACE(4, "ABN: failed to create cloned mailbox " << m_name << " for parent 0x" << std::hex
                                                              << m_parentMbox);
        return 1;
    }
    return 0;
}

int FwdMbox::send(mnet_msg** msg, mnet_mbox_id_t to)
{
    // Whoever is gone gets nothing: there is nobody to tell.
    mnet_send(msg, to, m_mailbox);
    return 0;
}

int FwdMbox::stop(bool /*force*/)
{
    if (m_mailbox != MNET_MBOX_NONE) {
        mnet_delete_mailbox(m_mailbox);
        m_mailbox = MNET_MBOX_NONE;
    }
    return 0;
}
