#include "answerPlans.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <utility>

namespace merlow::board {

namespace {

constexpr std::array<std::pair<AnswerPlan::Action, std::string_view>, 4> actionNames{{
    {AnswerPlan::Action::refuse, "refuse"},
    {AnswerPlan::Action::delay, "delay"},
    {AnswerPlan::Action::drop, "drop"},
    {AnswerPlan::Action::abort, "abort"},
}};

} // namespace

bool AnswerPlans::add(AnswerPlan plan)
{
    if (m_plans.size() >= maxPlans) {
        return false;
    }
    m_plans.push_back(std::move(plan));
    return true;
}

std::optional<AnswerPlan> AnswerPlans::take(std::string_view kind)
{
    const auto found = std::find_if(m_plans.begin(), m_plans.end(),
                                    [kind](const AnswerPlan& plan) { return plan.kind == kind; });
    if (found == m_plans.end()) {
        return std::nullopt;
    }
    AnswerPlan plan = *found;
    if (--found->count == 0) {
        m_plans.erase(found);
    }
    return plan;
}

std::size_t AnswerPlans::clear()
{
    const std::size_t count = m_plans.size();
    m_plans.clear();
    return count;
}

nlohmann::json AnswerPlans::toJson() const
{
    nlohmann::json list = nlohmann::json::array();
    for (const AnswerPlan& plan : m_plans) {
        nlohmann::json entry{{"action", toText(plan.action)}, {"kind", plan.kind}, {"count", plan.count}};
        if (plan.action == AnswerPlan::Action::delay) {
            entry["ms"] = plan.delay.count();
        }
        if (!plan.cause.empty()) {
            entry["cause"] = plan.cause;
        }
        list.push_back(std::move(entry));
    }
    return list;
}

std::string_view toText(AnswerPlan::Action action)
{
    for (const auto& [value, name] : actionNames) {
        if (value == action) {
            return name;
        }
    }
    return "";
}

std::optional<AnswerPlan::Action> actionFromText(std::string_view text)
{
    for (const auto& [value, name] : actionNames) {
        if (name == text) {
            return value;
        }
    }
    return std::nullopt;
}

} // namespace merlow::board
