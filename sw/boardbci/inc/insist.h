#pragma once

/// Tries `step` twice until it is true: what would be missed for long if it failed in the one moment in which
/// there is no memory.
template <class Step> [[nodiscard]] bool insist(const Step& step)
{
    constexpr int attempts = 2;
    for (int i = 0; i < attempts; ++i) {
        if (step()) {
            return true;
        }
    }
    return false;
}
