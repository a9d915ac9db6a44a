/// The library as a host loads it, on the real platform: its thread is started, stopped, cancelled and left
/// alone. Each case runs in a process of its own, with a run-time folder of its own.
#include "merlowIf.h"
#include "merlowImpl.h"
#include "mnet.h"
#include "sway.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

/// A forked child has the memory of its parent's threads and not the threads: to the leak checker all that
/// they held is lost.
static bool g_isForkedChild = false;
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off()
{
    return g_isForkedChild ? 1 : 0;
}

namespace {

using Merlow::V1::MerlowIf;

constexpr std::chrono::seconds DEADLINE{60};
constexpr const char* SWM_SERVER = "ux:SWMServer";

class ServerLifeTest : public ::testing::Test {
protected:
    ServerLifeTest()
    {
        std::string name = (std::filesystem::temp_directory_path() / "merlow-life-XXXXXX").string();
        EXPECT_NE(::mkdtemp(name.data()), nullptr);
        m_folder = name;
    }
    ~ServerLifeTest() override { std::filesystem::remove_all(m_folder); }

    /// What a process gives that runs `body` and exits with its result by way of the static destructors.
    int runHost(const std::function<int()>& body, bool isSwmServerUp = true)
    {
        const pid_t host = ::fork();
        if (host == 0) {
            ::setenv("MERLOW_RUN_DIR", m_folder.c_str(), 1);
            ::setenv("RUSHLOG_OUT", (m_folder + "/rushlog").c_str(), 1);
            ::setenv("SCRY_OUT", (m_folder + "/trace").c_str(), 1);
            // Connections wait in its queue, which is all that a start needs.
            sway_socket* const swmServer = isSwmServerUp ? sway_listen(SWM_SERVER, 0) : nullptr;
            const int result = body();
            sway_close(swmServer);
            std::exit(result); // NOLINT(concurrency-mt-unsafe): static destructors are what is tested
        }
        const auto end = std::chrono::steady_clock::now() + DEADLINE;
        int status = 0;
        while (::waitpid(host, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > end) {
                ::kill(host, SIGABRT);
                ::waitpid(host, &status, 0);
                ADD_FAILURE() << "The host process does not end";
                return -1;
            }
            ::poll(nullptr, 0, 5);
        }
        EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /// In a host: the private mailbox, once the server's thread has come to make it.
    static mnet_mbox_id_t findServer()
    {
        mnet_init(50, 0, nullptr, 0);
        if (mnet_create_mailbox(nullptr, 0) == MNET_MBOX_NONE) {
            return MNET_MBOX_NONE;
        }
        mnet_locate_async("private_Merlow", nullptr, mnet_current_mbox());
        mnet_msg* found = mnet_receive(nullptr, 10000, MNET_FROM_ANY);
        const mnet_mbox_id_t server = found == nullptr ? MNET_MBOX_NONE : mnet_sender(found);
        mnet_free(&found);
        return server;
    }
    static bool isUp() { return findServer() != MNET_MBOX_NONE; }

    std::string m_folder;
};

TEST_F(ServerLifeTest, aStopBeforeTheStartIsTrue)
{
    EXPECT_EQ(runHost([] { return MerlowIf::getInstance().stopServer() ? 0 : 1; }), 0);
}

TEST_F(ServerLifeTest, aServerThatRunsIsStoppedAndDoesNotStartAgain)
{
    EXPECT_EQ(runHost([] {
                  auto& server = MerlowIf::getInstance();
                  const bool good = server.startServer() && !server.startServer() && isUp() &&
                                    !server.startServer() && server.stopServer() && server.stopServer() &&
                                    !server.startServer() && server.getImpl().start() == 7;
                  return good ? 0 : 1;
              }),
              0);
}

TEST_F(ServerLifeTest, aStopRightBehindTheStartIsNotLost)
{
    EXPECT_EQ(runHost([] {
                  auto& server = MerlowIf::getInstance();
                  return server.startServer() && server.stopServer() ? 0 : 1;
              }),
              0);
}

TEST_F(ServerLifeTest, aHostThatNeverStopsExitsCleanly)
{
    EXPECT_EQ(runHost([] { return MerlowIf::getInstance().startServer() && isUp() ? 0 : 1; }), 0);
}

TEST_F(ServerLifeTest, aHostThatExitsRightBehindTheStartExitsCleanly)
{
    EXPECT_EQ(runHost([] { return MerlowIf::getInstance().startServer() ? 0 : 1; }), 0);
}

TEST_F(ServerLifeTest, aForcedStopReturnsAtOnceAndAFurtherStartWorks)
{
    EXPECT_EQ(runHost([] {
                  auto& server = MerlowIf::getInstance();
                  MerlowImpl& impl = server.getImpl();
                  for (int i = 0; i < 5; ++i) {
                      if (impl.start() != 0 || impl.stop(true) != 0 || impl.stop(true) != 0) {
                          return 1;
                      }
                  }
                  return impl.start() == 0 && isUp() && impl.stop(false) == 0 ? 0 : 2;
              }),
              0);
}

TEST_F(ServerLifeTest, theMailboxesOfAForcedStopStayUntilTheServerIsDestroyed)
{
#ifdef MERLOW_THREAD_SANITIZER
    GTEST_SKIP()
        << "the sanitizer overlooks the locks of a thread that was cancelled in a call it intercepts";
#endif
    EXPECT_EQ(runHost([] {
                  auto impl = std::make_unique<MerlowImpl>();
                  if (impl->start() != 0 || !isUp() || impl->stop(true) != 0) {
                      return 1;
                  }
                  if (mnet_create_mailbox("private_Merlow", 0) != MNET_MBOX_NONE) {
                      return 2;
                  }
                  impl.reset();
                  return mnet_create_mailbox("private_Merlow", 0) != MNET_MBOX_NONE ? 0 : 3;
              }),
              0);
}

TEST_F(ServerLifeTest, aForcedStopOfABusyServerIsNoHarm)
{
#ifdef MERLOW_THREAD_SANITIZER
    GTEST_SKIP()
        << "the sanitizer overlooks the locks of a thread that was cancelled in a call it intercepts";
#endif
    EXPECT_EQ(runHost([] {
                  auto impl = std::make_unique<MerlowImpl>();
                  if (impl->start() != 0) {
                      return 1;
                  }
                  const mnet_mbox_id_t server = findServer();
                  std::atomic<unsigned int> sent{0};
                  std::thread flood([server, &sent] {
                      const mnet_mbox_id_t own = mnet_create_mailbox(nullptr, 0);
                      mnet_msg* msg = nullptr;
                      do {
                          msg = mnet_alloc(16, 0x1658000);
                          ++sent;
                      } while (mnet_send(&msg, server, own) == 0); // until the mailbox has gone
                  });
                  while (sent < 1000) {
                      std::this_thread::yield();
                  }
                  const bool isStopped = impl->stop(true) == 0;
                  impl.reset();
                  flood.join();
                  return isStopped ? 0 : 2;
              }),
              0);
}

TEST_F(ServerLifeTest, ofManyThreadsThatStartOneDoes)
{
    EXPECT_EQ(runHost([] {
                  for (int round = 0; round < 10; ++round) {
                      MerlowImpl impl;
                      if (impl.start() != 0 || impl.stop(true) != 0) {
                          return 1;
                      }
                      // All have the end of the cancelled thread to wait for.
                      std::atomic<int> started{0};
                      std::atomic<int> refused{0};
                      std::latch all(4);
                      std::vector<std::thread> hosts;
                      for (int i = 0; i < 4; ++i) {
                          hosts.emplace_back([&] {
                              all.arrive_and_wait();
                              const int result = impl.start();
                              started += result == 0 ? 1 : 0;
                              refused += result == 7 ? 1 : 0;
                          });
                      }
                      for (auto& host : hosts) {
                          host.join();
                      }
                      if (started != 1 || refused != 3 || impl.stop(false) != 0) {
                          return 2;
                      }
                  }
                  return 0;
              }),
              0);
}

TEST_F(ServerLifeTest, stopsFromManyThreadsAllReturn)
{
    EXPECT_EQ(runHost([] {
                  auto& server = MerlowIf::getInstance();
                  if (!server.startServer()) {
                      return 1;
                  }
                  std::atomic<int> bad{0};
                  std::vector<std::thread> hosts;
                  for (int i = 0; i < 4; ++i) {
                      hosts.emplace_back([&server, &bad] { bad += server.stopServer() ? 0 : 1; });
                  }
                  for (auto& host : hosts) {
                      host.join();
                  }
                  return bad.load();
              }),
              0);
}

TEST_F(ServerLifeTest, aTakenNameGives2AndAFurtherStartWorksOnceItIsFree)
{
    EXPECT_EQ(runHost([] {
                  mnet_init(50, 0, nullptr, 0);
                  const auto taken = mnet_create_mailbox("private_Merlow", 0);
                  MerlowImpl& impl = MerlowIf::getInstance().getImpl();
                  if (impl.start() != 0 || impl.stop(false) != 2) {
                      return 1;
                  }
                  mnet_delete_mailbox(taken);
                  return impl.start() == 0 && impl.stop(false) == 0 ? 0 : 2;
              }),
              0);
}

TEST_F(ServerLifeTest, withoutAnSwmServerTheStartGives6AndAFurtherStartWorksOnceItIsUp)
{
    const auto host = [] {
        MerlowImpl& impl = MerlowIf::getInstance().getImpl();
        if (impl.start() != 0 || impl.stop(false) != 6) {
            return 1;
        }
        sway_socket* const swmServer = sway_listen(SWM_SERVER, 0);
        const bool isGood = impl.start() == 0 && isUp() && impl.stop(false) == 0;
        sway_close(swmServer);
        return isGood ? 0 : 2;
    };
    EXPECT_EQ(runHost(host, false), 0);
}

TEST_F(ServerLifeTest, aForkedChildOfTheHostExitsWithoutWaitingForAThreadItHasNot)
{
    EXPECT_EQ(runHost([] {
                  if (!MerlowIf::getInstance().startServer() || !isUp()) {
                      return 1;
                  }
                  const pid_t child = ::fork();
                  if (child == 0) {
                      g_isForkedChild = true;
                      std::exit(0); // NOLINT(concurrency-mt-unsafe)
                  }
                  int status = 0;
                  ::waitpid(child, &status, 0);
                  return status == 0 && MerlowIf::getInstance().stopServer() ? 0 : 2;
              }),
              0);
}

} // namespace
