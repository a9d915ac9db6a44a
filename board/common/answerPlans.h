/// Planned interventions: what a test engineer wants to happen to the next answers of a kind.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace merlow::board {

struct AnswerPlan {
    enum class Action : std::uint8_t {
        refuse, ///< the request is not served but rejected
        delay,  ///< served, and the answer goes out later
        drop,   ///< served, and the answer is lost
        abort,  ///< not served; the answer gives the whole transfer up
    };

    Action action = Action::drop;
    std::string kind;                   ///< the request whose answers are meant
    std::uint32_t count = 1;            ///< answers left to act on, at least 1
    std::chrono::milliseconds delay{0}; ///< of `delay`
    std::string cause;                  ///< of `refuse`; empty for the kind's usual one
};

/// The plans that stand, oldest first. A plan acts on `count` answers of its kind, then the next one of that
/// kind does.
class AnswerPlans {
public:
    static constexpr std::size_t maxPlans = 256;

    /// False, and nothing kept, when there are `maxPlans` already.
    [[nodiscard]] bool add(AnswerPlan plan);
    /// The plan for an answer of `kind` that is about to be given, one use of it gone.
    [[nodiscard]] std::optional<AnswerPlan> take(std::string_view kind);
    /// Removes all; gives how many there were.
    std::size_t clear();
    bool empty() const { return m_plans.empty(); }
    nlohmann::json toJson() const;

private:
    std::deque<AnswerPlan> m_plans;
};

std::string_view toText(AnswerPlan::Action action);
std::optional<AnswerPlan::Action> actionFromText(std::string_view text);

} // namespace merlow::board
