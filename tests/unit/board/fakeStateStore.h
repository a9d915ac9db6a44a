#pragma once

#include "stateStore.h"

#include <string>

namespace merlow::board::test {

/// What outlives a neighbour, in a string.
class FakeStateStore : public StateStore {
public:
    std::string place() const override { return "the store"; }
    Loaded load() override { return {text, loadError}; }

    [[nodiscard]] std::string save(const std::string& saved) override
    {
        ++saves;
        if (saveError.empty()) {
            text = saved;
        }
        return saveError;
    }

    std::string text;
    std::string loadError;
    std::string saveError;
    int saves = 0;
};

} // namespace merlow::board::test
