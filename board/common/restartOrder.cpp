#include "restartOrder.h"

#include <nlohmann/json.hpp>

namespace merlow::board {

using nlohmann::json;

StateFile givenRestartOrder()
{
    return StateFile("restartOrder.json", StateFile::Folder::state);
}

StateFile carriedOutRestartOrder()
{
    return StateFile("restartOrder.carriedOut.json", StateFile::Folder::state);
}

StateFile servedRestartOrder()
{
    return StateFile("restartOrder.served.json", StateFile::Folder::state);
}

LoadedRestartOrder loadRestartOrder(StateStore& store)
{
    const StateStore::Loaded loaded = store.load();
    if (!loaded.error.empty() || loaded.text.empty()) {
        return {std::nullopt, loaded.error};
    }
    try {
        const json object = json::parse(loaded.text);
        const RestartOrder none;
        return {RestartOrder{object.value("code", none.code), object.value("rank", none.rank),
                             object.value("label", none.label), object.value("loadModule", none.loadModule),
                             object.value("initiator", none.initiator), object.value("time", none.time)},
                ""};
    } catch (const json::exception& error) {
        return {std::nullopt, error.what()};
    }
}

LoadedRestartOrder pendingRestartOrder(StateStore& given, StateStore& done)
{
    LoadedRestartOrder pending = loadRestartOrder(given);
    // Done twice does little harm, so that one which cannot be read counts as none.
    if (pending.order && pending.order == loadRestartOrder(done).order) {
        pending.order.reset();
    }
    return pending;
}

std::string saveRestartOrder(StateStore& store, const RestartOrder& order)
{
    const json object{{"code", order.code},           {"rank", order.rank},
                      {"label", order.label},         {"loadModule", order.loadModule},
                      {"initiator", order.initiator}, {"time", order.time}};
    // Label and module come from clients, in whatever encoding.
    return store.save(object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n");
}

} // namespace merlow::board
