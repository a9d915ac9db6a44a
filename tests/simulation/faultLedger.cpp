#include "faultLedger.h"

#include <algorithm>

namespace sim {

namespace {

int priorityOf(std::uint16_t id)
{
    switch (id) {
    case 0x0103:
    case 0x0104:
        return 4;
    case 0x0101:
    case 0x0300:
        return 3;
    case 0x0502:
    case 0x0521:
        return 2;
    case 0x0703:
        return 1;
    default:
        return 0;
    }
}

std::uint16_t partnerOf(std::uint16_t id)
{
    switch (id) {
    case 0x0103:
        return 0x0104;
    case 0x0104:
        return 0x0103;
    case 0x0101:
        return 0x0300;
    case 0x0300:
        return 0x0101;
    default:
        return 0;
    }
}

/// Taken, and forgotten at once.
bool isPlaceholder(std::uint16_t id)
{
    return id == 0x0301 || id == 0x0302 || id == 0x0522 || id == 0x0710 || id == 0x0711;
}

} // namespace

Fault* FaultLedger::find(std::uint16_t id)
{
    for (auto& [priority, group] : m_groups) {
        const auto found =
            std::find_if(group.begin(), group.end(), [id](const Fault& fault) { return fault.id == id; });
        if (found != group.end()) {
            return &*found;
        }
    }
    return nullptr;
}

void FaultLedger::show(Fault& fault)
{
    fault.isShown = true;
    m_raised(fault);
}

void FaultLedger::raise(bool fromBoard, std::uint16_t id, std::uint16_t faultCase, const std::string& text)
{
    const int priority = priorityOf(id);
    if (isPlaceholder(id) || (priority == 0 && !fromBoard)) {
        return;
    }
    if (Fault* known = find(id)) {
        ++known->sources;
        return;
    }
    Fault& fault = m_groups[priority].emplace_back(Fault{.id = id, .faultCase = faultCase, .text = text});
    if (priority < 2) {
        show(fault);
        return;
    }
    for (const auto& [other, group] : m_groups) {
        if (other > priority && !group.empty()) {
            return; // hidden by it
        }
    }
    const Fault* partner = partnerOf(id) == 0 ? nullptr : find(partnerOf(id));
    if (partner != nullptr && partner->isShown) {
        return;
    }
    for (auto lower = m_groups.rbegin(); lower != m_groups.rend() && lower->first < priority; ++lower) {
        for (Fault& hidden : lower->second) {
            if (hidden.isShown) {
                m_ceased(hidden);
                hidden.isShown = false;
            }
        }
    }
    show(fault);
}

void FaultLedger::remove(std::uint16_t id)
{
    Fault* known = find(id);
    if (known == nullptr) {
        return;
    }
    if (known->sources > 1) {
        --known->sources;
        return;
    }
    const int priority = priorityOf(id);
    const Fault removed = *known;
    std::erase_if(m_groups[priority], [id](const Fault& fault) { return fault.id == id; });
    m_ceased(removed); // hidden ones too
    if (priority < 2) {
        return;
    }
    if (Fault* partner = partnerOf(id) == 0 ? nullptr : find(partnerOf(id))) {
        show(*partner);
    }
    for (auto& [lower, group] : m_groups) {
        if (lower < priority && !group.empty()) {
            for (Fault& fault : group) {
                if (fault.isShown) {
                    m_raised(fault); // once more
                }
            }
            return;
        }
    }
}

std::set<std::uint16_t> FaultLedger::shown() const
{
    std::set<std::uint16_t> ids;
    forEachShown([&ids](const Fault& fault) { ids.insert(fault.id); });
    return ids;
}

void FaultLedger::forEachShown(const std::function<void(const Fault&)>& each) const
{
    for (const auto& [priority, group] : m_groups) {
        for (const Fault& fault : group) {
            if (fault.isShown) {
                each(fault);
            }
        }
    }
}

} // namespace sim
