/// The board's maintenance state.
#pragma once

#include <bmmi.pb.h>
#include <cstdint>

namespace merlow::board {

/// normal -> requested -> ongoing -> done -> normal, as clients order it; a request can be withdrawn, and
/// what is done be requested anew. While a service man is at the unit it is in a state of its own and takes
/// no orders; when he leaves it is where it was.
class MaintState {
public:
    using State = boardresourcehandler::bmmi::MaintStateInd::MaintState;
    static constexpr State normal = boardresourcehandler::bmmi::MaintStateInd::STATE_0;
    static constexpr State requested = boardresourcehandler::bmmi::MaintStateInd::STATE_1;
    static constexpr State ongoing = boardresourcehandler::bmmi::MaintStateInd::STATE_2;
    static constexpr State workDone = boardresourcehandler::bmmi::MaintStateInd::STATE_3;
    static constexpr State serviceMan = boardresourcehandler::bmmi::MaintStateInd::STATE_4;

    enum class Outcome : std::uint8_t { done, illegalTransition, serviceManPresent };

    State state() const { return m_isServiceManPresent ? serviceMan : m_ordered; }
    const char* name() const;
    bool isServiceManPresent() const { return m_isServiceManPresent; }

    /// To the state that it is in already is no change and nothing wrong.
    [[nodiscard]] Outcome order(State state);
    void setServiceMan(bool isPresent) { m_isServiceManPresent = isPresent; }

private:
    State m_ordered = normal;
    bool m_isServiceManPresent = false;
};

} // namespace merlow::board
