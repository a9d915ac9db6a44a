/// The board's fault handler against a plain model of it that never forgets, event by event: every call to
/// the fault manager, in order.
#include "board.h"
#include "bri.pb.h"
#include "briFaultHandler.h"
#include "briFaultModel.h"

#include <iostream>
#include <random>

namespace bri = boardresourcehandler::bri;

namespace {

using model::FanInfo;
using model::Indication;

/// An indication as the model sees it and as the board sends it.
struct IndicationRow {
    Indication indication;
    std::string body;
};

IndicationRow rowOf(const Indication& indication)
{
    bri::FaultInd ind;
    if (indication.faultId) {
        ind.set_fault_id(static_cast<bri::BriFaultId>(*indication.faultId));
    }
    if (indication.faultCase) {
        ind.set_fault_case(*indication.faultCase);
    }
    if (indication.fan) {
        auto& fan = *ind.mutable_fan_product_info();
        if (indication.fan->productNumber) {
            fan.set_fan_product_number(*indication.fan->productNumber);
        }
        if (indication.fan->parentProductNumber) {
            fan.set_fan_parent_product_number(*indication.fan->parentProductNumber);
        }
        if (indication.fan->slot) {
            fan.set_fan_position_slot(*indication.fan->slot);
        }
    }
    return {indication, ind.SerializeAsString()};
}

/// Every id, the unknown one included, with cases that are equal in 16 bits, and each form of fan
/// information.
std::vector<IndicationRow> allIndications()
{
    std::vector<IndicationRow> rows;
    for (int id = 0; id <= 13; ++id) {
        for (const std::uint32_t faultCase : {0U, 317U, 65536U, 65853U}) {
            rows.push_back(rowOf({id, faultCase, {}}));
        }
        if (id == 7 || id == 8 || id == 12) {
            for (const auto& fan : {FanInfo{}, FanInfo{"FAN 1", "RU 1", 3}, FanInfo{"FAN 2", {}, {}},
                                    FanInfo{{}, "RU 2", -1}}) {
                rows.push_back(rowOf({id, 1U, fan}));
            }
        }
        rows.push_back(rowOf({id, {}, {}}));
    }
    rows.push_back(rowOf({{}, 1U, {}}));
    return rows;
}

std::shared_ptr<mnet_msg> frameOf(std::uint32_t msgNo, const std::string& body)
{
    const support::Bytes bytes = support::makeFrame(msgNo, 0, 100, body);
    std::shared_ptr<mnet_msg> msg(allocMsg(bytes.size(), msgNo));
    std::memcpy(msg.get(), bytes.data(), bytes.size());
    return msg;
}

MnetMessageSubscriptionCustom::MsgHandler handlerOf(std::uint32_t msgNo)
{
    MnetMessageSubscriptionCustom::MsgHandler handler;
    EXPECT_EQ(MnetMessageSubscriptionCustom::getInstance().getMsgHandler(msgNo, handler), 0);
    return handler;
}

/// Random events on a new handler and a new model, until they tell the fault manager something different.
void compare(std::uint32_t seed, unsigned int events)
{
    static const std::vector<IndicationRow> rows = allIndications();
    std::mt19937 random(seed);
    const auto below = [&random](std::size_t limit) {
        return static_cast<std::size_t>(random() % limit);
    };
    FaultCalls product;
    std::vector<FaultCall> expected;
    model::BriFaults plain(expected);
    support::Board board{{.bmmi = false, .published = false, .faultManager = &product}};
    board.traces().setProcMask(0);
    board.add<BriFaultHandler>();
    ASSERT_EQ(board.commonData().getBriClient().getClientRef(), 100U);
    const auto onIndication = handlerOf(bri::FaultInd::MESSAGE_NUMBER);
    const auto onCease = handlerOf(bri::FaultCeaseInd::MESSAGE_NUMBER);
    std::vector<std::shared_ptr<mnet_msg>> frames(rows.size()); // each is built when it is first drawn
    std::vector<int> raised;
    bool supervised = false;
    const std::size_t span = 1 + below(rows.size()); // some runs draw from few rows, so that these repeat
    for (unsigned int i = 0; i < events; ++i) {
        const std::size_t kind = below(100);
        if (kind < 2) {
            supervised = !supervised;
            board.commonData().setPdsFaultsEnabled(supervised);
            plain.setPowerDropSupervision(supervised);
        } else if (kind < 50) {
            const std::size_t row = below(span);
            if (!frames[row]) {
                frames[row] = frameOf(bri::FaultInd::MESSAGE_NUMBER, rows[row].body);
            }
            raised.push_back(rows[row].indication.faultId.value_or(0));
            onIndication(frames[row]);
            plain.indicate(rows[row].indication);
        } else {
            int id = static_cast<int>(below(14));
            if (!raised.empty() && kind < 95) { // as a rule one that stands
                std::swap(raised[below(raised.size())], raised.back());
                id = raised.back();
                raised.pop_back();
            }
            bri::FaultCeaseInd ind;
            ind.set_fault_id(static_cast<bri::BriFaultId>(id));
            onCease(frameOf(bri::FaultCeaseInd::MESSAGE_NUMBER, ind.SerializeAsString()));
            plain.cease(id);
        }
        ASSERT_EQ(product.calls, expected) << "seed " << seed << ", event " << i;
        product.calls.clear();
        expected.clear();
    }
}

#if defined(MERLOW_ADDRESS_SANITIZER) || defined(MERLOW_THREAD_SANITIZER)
constexpr unsigned int runs = 100; // what they look for shows early, and they take their time
#else
constexpr unsigned int runs = 4000;
#endif
constexpr unsigned int eventsOfARun = 125;
constexpr unsigned int eventsOfALongRun = 2000;

/// Half a million events.
void compareFrom(std::uint32_t seed)
{
    for (std::uint32_t i = 0; i < runs && !::testing::Test::HasFatalFailure(); ++i) {
        compare(seed + i, eventsOfARun);
    }
    if (!::testing::Test::HasFatalFailure()) {
        compare(seed, eventsOfALongRun);
    }
}

} // namespace

TEST(BriFaultCoordinationTest, eventsFromFixedSeedsAreToldAsTheModelSays)
{
    compareFrom(1);
}

TEST(BriFaultCoordinationTest, eventsFromARandomSeedAreToldAsTheModelSays)
{
    const std::uint32_t seed = std::random_device()();
    std::cout << "seed " << seed << std::endl;
    compareFrom(seed);
}
