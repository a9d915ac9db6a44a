#include "restartOrder.h"
#include "fakeStateStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace merlow::board::test {
namespace {

const RestartOrder someOrder{-7, 3, "label \"1\"", "QXR7041162/15_R91KT", "client 1", 1'790'000'000'123};

TEST(RestartOrderTest, whatIsSavedIsLoaded)
{
    FakeStateStore store;
    EXPECT_EQ(saveRestartOrder(store, someOrder), "");
    EXPECT_EQ(loadRestartOrder(store).order, someOrder);
    EXPECT_EQ(store.text, R"({"code":-7,"initiator":"client 1","label":"label \"1\"",)"
                          R"("loadModule":"QXR7041162/15_R91KT","rank":3,"time":1790000000123})"
                          "\n");
}

TEST(RestartOrderTest, nothingWasSavedAndNothingIsWrong)
{
    FakeStateStore store;
    EXPECT_EQ(loadRestartOrder(store).order, std::nullopt);
    EXPECT_EQ(loadRestartOrder(store).error, "");
}

TEST(RestartOrderTest, whatIsMissingHasItsDefault)
{
    FakeStateStore store;
    store.text = R"({"loadModule": "QXR1_R1A", "more": [1]})";
    EXPECT_EQ(loadRestartOrder(store).order, (RestartOrder{0, 0, "", "QXR1_R1A", "", 0}));
}

TEST(RestartOrderTest, whatIsNoOrderIsToldAndIsNone)
{
    FakeStateStore store;
    for (const char* text : {"{", "[]", "1", R"({"loadModule": 1})", R"({"rank": "x"})"}) {
        store.text = text;
        EXPECT_EQ(loadRestartOrder(store).order, std::nullopt) << text;
        EXPECT_NE(loadRestartOrder(store).error, "") << text;
    }
}

TEST(RestartOrderTest, aFileThatCannotBeUsedIsTold)
{
    FakeStateStore store;
    store.loadError = "Input/output error";
    store.saveError = "No space left on device";
    EXPECT_EQ(loadRestartOrder(store).error, store.loadError);
    EXPECT_EQ(saveRestartOrder(store, someOrder), store.saveError);
}

TEST(RestartOrderTest, textsInAnotherEncodingAreSaved)
{
    FakeStateStore store;
    RestartOrder order = someOrder;
    order.label = "\xff\xfe";
    EXPECT_EQ(saveRestartOrder(store, order), "");
    EXPECT_EQ(loadRestartOrder(store).order->loadModule, someOrder.loadModule);
}

TEST(RestartOrderTest, givenAndServedOrdersAreFilesOfTheStateFolder)
{
    EXPECT_THAT(givenRestartOrder().place(), testing::EndsWith("/state/restartOrder.json"));
    EXPECT_THAT(servedRestartOrder().place(), testing::EndsWith("/state/restartOrder.served.json"));
}

} // namespace
} // namespace merlow::board::test
