#include "control.h"

#include "brhdTest.h"

#include <unistd.h>

namespace merlow::board::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Result = ControlAnswer::Result;

Bytes bytesOf(const std::string& text)
{
    const auto view = std::as_bytes(std::span(text));
    return {view.begin(), view.end()};
}

TEST(ControlMessageTest, isANumberAReferenceAndAnObject)
{
    EXPECT_EQ(textOf(encodeControl(controlRequest, 5, {{"a", 1}})), "42440001 00000005 7b226122 3a317d");
    const auto message = decodeControl(messageFrom("42440001 00000005 7b226122 3a317d"), controlRequest);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->ref, 5u);
    EXPECT_EQ(message->body, nlohmann::json({{"a", 1}}));
}

TEST(ControlMessageTest, nothingElseIsOne)
{
    const Bytes whole = messageFrom("42440001 00000005 7b226122 3a317d");
    for (std::size_t size = 4; size < whole.size(); ++size) {
        EXPECT_FALSE(decodeControl(BytesView(whole).first(size), controlRequest)) << size;
    }
    EXPECT_FALSE(decodeControl(whole, controlAnswer));
    for (const char* body : {"5b5d", "31", "6e756c6c", "ff", "7b7d7b7d", "7b226122"}) {
        EXPECT_FALSE(decodeControl(messageFrom("42440001 00000005" + std::string(body)), controlRequest))
            << body;
    }
    Bytes longest = messageFrom("42440001 00000005 7b7d");
    longest.resize(maxControlSize, std::byte(' '));
    EXPECT_TRUE(decodeControl(longest, controlRequest));
    longest.push_back(std::byte(' '));
    EXPECT_FALSE(decodeControl(longest, controlRequest));
}

TEST(ControlMessageTest, deepNestingIsNoTrouble)
{
    Bytes message = messageFrom("42440001 00000005");
    putBytes(message, bytesOf("{\"command\":" + std::string(200000, '[') + std::string(200000, ']') + "}"));
    const auto decoded = decodeControl(message, controlRequest);
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(textMember(decoded->body, "command"));
}

TEST(ControlMessageTest, aTextThatIsNoUtf8IsSentAllTheSame)
{
    EXPECT_NO_THROW(encodeControl(controlAnswer, 1, {{"text", "\xff"}}));
}

TEST(ControlMessageTest, answersSurviveTheWay)
{
    for (const Result result : {Result::done, Result::refused, Result::usage, Result::notFound}) {
        const auto answer = answerFromJson(toJson({result, "text", 7}));
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->result, result);
        EXPECT_EQ(answer->text, "text");
        EXPECT_EQ(answer->data, 7);
    }
    EXPECT_FALSE(answerFromJson({{"result", "maybe"}}));
    EXPECT_FALSE(answerFromJson(nlohmann::json::object()));
}

TEST(AnswerPlansTest, actInTheirOrderAndAsOftenAsTheyCount)
{
    AnswerPlans plans;
    EXPECT_TRUE(plans.add({AnswerPlan::Action::drop, "a", 2, {}, ""}));
    EXPECT_TRUE(plans.add({AnswerPlan::Action::refuse, "a", 1, {}, "why"}));
    EXPECT_TRUE(plans.add({AnswerPlan::Action::delay, "b", 1, std::chrono::milliseconds(5), ""}));
    EXPECT_FALSE(plans.take("c"));
    EXPECT_EQ(plans.take("a")->action, AnswerPlan::Action::drop);
    EXPECT_EQ(plans.toJson()[0]["count"], 1);
    EXPECT_EQ(plans.take("a")->action, AnswerPlan::Action::drop);
    EXPECT_EQ(plans.take("a")->cause, "why");
    EXPECT_FALSE(plans.take("a"));
    EXPECT_EQ(plans.take("b")->delay.count(), 5);
    EXPECT_TRUE(plans.empty());
}

TEST(AnswerPlansTest, areNotKeptWithoutEnd)
{
    AnswerPlans plans;
    for (std::size_t i = 0; i < AnswerPlans::maxPlans; ++i) {
        EXPECT_TRUE(plans.add({AnswerPlan::Action::drop, "a", 1, {}, ""}));
    }
    EXPECT_FALSE(plans.add({AnswerPlan::Action::drop, "a", 1, {}, ""}));
    EXPECT_EQ(plans.clear(), AnswerPlans::maxPlans);
    EXPECT_EQ(plans.clear(), 0u);
}

class ControlTest : public BrhdTest {
protected:
    ControlAnswer control(const nlohmann::json& request) { return serveControl(m_brhd, request); }
};

TEST_F(ControlTest, statusTellsWhoAnswers)
{
    const auto answer = control({{"command", "status"}});
    EXPECT_EQ(answer.result, Result::done);
    EXPECT_EQ(answer.data["program"], "brhd");
    EXPECT_EQ(answer.data["pid"], getpid());
    EXPECT_THAT(answer.data["bri"]["connections"], IsEmpty());
    EXPECT_EQ(answer.data["bmmi"]["mailboxName"], "BmmiServer");
}

TEST_F(ControlTest, kindsTellTheirCauses)
{
    const auto kinds = control({{"command", "kinds"}}).data;
    ASSERT_THAT(kinds, SizeIs(24));
    EXPECT_EQ(kinds[0]["kind"], "bri::ConnEstablishReq");
    EXPECT_EQ(kinds[0]["causes"],
              nlohmann::json({"NO_SUPPORTED_PROTOCOL_REVISION", "MAX_NUMBER_OF_CONNECTIONS_EXCEEDED"}));
    EXPECT_THAT(kinds[1]["causes"], IsEmpty());
}

TEST_F(ControlTest, plansAreKeptAndCleared)
{
    EXPECT_EQ(plan("delay", "bri::SetUtcTimeReq", {{"ms", 10}, {"count", 3}}).text,
              "delay planned for the next 3 answers to bri::SetUtcTimeReq");
    EXPECT_EQ(plan("drop", "bmmi::RegisterMmiUserReq").text,
              "drop planned for the next answer to bmmi::RegisterMmiUserReq");
    EXPECT_EQ(
        statusAt("/plans/0"),
        nlohmann::json({{"action", "delay"}, {"kind", "bri::SetUtcTimeReq"}, {"count", 3}, {"ms", 10}}));
    EXPECT_EQ(control({{"command", "clear"}}).text, "brhd cleared 2 plans");
    EXPECT_THAT(statusAt("/plans"), IsEmpty());
}

TEST_F(ControlTest, plansThatCannotBeAreRefused)
{
    EXPECT_EQ(plan("explode", "bri::SetUtcTimeReq").result, Result::usage);
    EXPECT_EQ(plan("drop", "bri::Nothing").result, Result::usage);
    EXPECT_EQ(plan("drop", "").result, Result::usage);
    EXPECT_EQ(plan("drop", "bri::SetUtcTimeReq", {{"count", 0}}).result, Result::usage);
    EXPECT_EQ(plan("drop", "bri::SetUtcTimeReq", {{"count", "many"}}).result, Result::usage);
    EXPECT_EQ(plan("refuse", "bri::SetUtcTimeReq", {{"cause", "BAD_MOOD"}}).result, Result::usage);
    const auto answer = plan("refuse", "bri::ConnEstablishReq", {{"cause", "BAD_MOOD"}});
    EXPECT_EQ(answer.result, Result::usage);
    EXPECT_THAT(answer.text, HasSubstr("NO_SUPPORTED_PROTOCOL_REVISION, MAX_NUMBER_OF_CONNECTIONS_EXCEEDED"));
    EXPECT_THAT(statusAt("/plans"), IsEmpty());
    for (std::size_t i = 0; i < AnswerPlans::maxPlans; ++i) {
        plan("drop", "bri::SetUtcTimeReq");
    }
    EXPECT_EQ(plan("drop", "bri::SetUtcTimeReq").result, Result::refused);
}

TEST_F(ControlTest, theDescriptionInForceIsTold)
{
    const auto answer = control({{"command", "describe"}});
    EXPECT_EQ(answer.result, Result::done);
    EXPECT_EQ(answer.text, "the built-in board description");
    EXPECT_EQ(answer.data, toJson(BoardDescription()));
}

TEST_F(ControlTest, requestsThatMakeNoSenseAreUsage)
{
    for (const nlohmann::json& request : {nlohmann::json::object(),
                                          {{"command", 5}},
                                          {{"command", "dance"}},
                                          {{"command", "plan"}},
                                          {{"command", "lose"}},
                                          {{"command", "lose"}, {"server", "legacy"}},
                                          {{"command", "lose"}, {"server", "bri"}, {"ref", -1}},
                                          {{"command", "lose"}, {"server", "bri"}, {"ref", 4294967296}}}) {
        EXPECT_EQ(control(request).result, Result::usage) << request;
    }
    EXPECT_EQ(control({{"command", "lose"}, {"server", "bri"}, {"ref", 4294967295}}).result,
              Result::notFound);
    EXPECT_THAT(m_outbox.reopened, IsEmpty());
}

} // namespace
} // namespace merlow::board::test
