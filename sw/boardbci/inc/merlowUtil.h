#pragma once

#include "mnet.h"

#include <map>
#include <string>

/// Names of message numbers, for traces only. Server thread only.
class MerlowUtil {
public:
    /// Adds names; a number that has one keeps it.
    static void registerMessageNames(const std::map<unsigned int, std::string>& names);
    /// The number as decimal text when it has no name.
    [[nodiscard]] static std::string getMsgName(unsigned int msgNo);
    [[nodiscard]] static std::string getMsgName(const mnet_msg* msg);
    /// The name, " from mbox: 0x" and the sender.
    [[nodiscard]] static std::string traceReceivedMsg(const mnet_msg* msg);

private:
    static std::map<unsigned int, std::string> m_msgMapper;
};
