#include "merlowUtil.h"

#include <sstream>

std::map<unsigned int, std::string> MerlowUtil::m_msgMapper;

void MerlowUtil::registerMessageNames(const std::map<unsigned int, std::string>& names)
{
    m_msgMapper.insert(names.begin(), names.end());
}

std::string MerlowUtil::getMsgName(unsigned int msgNo)
{
    const auto it = m_msgMapper.find(msgNo);
    return it == m_msgMapper.end() ? std::to_string(msgNo) : it->second;
}

std::string MerlowUtil::getMsgName(const mnet_msg* msg)
{
    return getMsgName(msg->msgNo);
}

std::string MerlowUtil::traceReceivedMsg(const mnet_msg* msg)
{
    std::ostringstream text;
    text << getMsgName(msg) << " from mbox: 0x" << std::hex << mnet_sender(msg);
    return text.str();
}
