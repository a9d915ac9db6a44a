/// Who is served when several want something.
#include "mnetFixture.h"

#include <algorithm>
#include <vector>

namespace mnet::test {
namespace {

class TurnsTest : public MnetTest {};

/// Another process that has sent many messages, none of which was read yet.
class Flooder {
public:
    static constexpr std::uint32_t number = 0xF100D;

    Flooder()
        : m_child([this] {
              start();
              const mnet_mbox_id_t target = find("mine");
              for (int i = 0; i < messages; ++i) {
                  EXPECT_EQ(send(target, number), 0);
              }
              m_sent.open();
              EXPECT_TRUE(serveUntil([this] { return m_end.pass(0); }));
          })
    {
        EXPECT_TRUE(m_sent.pass());
    }
    void finish()
    {
        m_end.open();
        m_child.finish();
    }
    static constexpr int messages = 100;

private:
    Gate m_sent;
    Gate m_end;
    Child m_child;
};

TEST_F(TurnsTest, whoFloodsIsServedInTurnWithTheOthers)
{
    start("mine");
    Gate begin;
    Gate sent;
    Gate end;
    Child honest([&] {
        start();
        const mnet_mbox_id_t target = find("mine");
        EXPECT_EQ(send(target, 1), 0);
        EXPECT_TRUE(begin.pass());
        EXPECT_EQ(send(target, 2), 0);
        EXPECT_EQ(send(target, 3), 0);
        sent.open();
        EXPECT_TRUE(serveUntil([&] { return end.pass(0); }));
    });
    EXPECT_EQ(receive().number(), 1u);
    Flooder flooder;
    constexpr std::uint32_t flood = Flooder::number;
    EXPECT_EQ(receive().number(), flood);
    begin.open();
    ASSERT_TRUE(sent.pass());
    std::vector<std::uint32_t> order;
    order.reserve(Flooder::messages + 1);
    for (int i = 0; i < Flooder::messages + 1; ++i) {
        order.push_back(receive().number());
    }
    const std::vector<std::uint32_t> inTurn{2, flood, 3, flood};
    EXPECT_EQ(std::vector<std::uint32_t>(order.begin(), order.begin() + 4), inTurn);
    EXPECT_EQ(std::count(order.begin(), order.end(), flood), Flooder::messages - 1);
    end.open();
    honest.finish();
    flooder.finish();
}

} // namespace
} // namespace mnet::test
