// The power fails at each moment of what brhd and swmd do on their disk.

#include "powerCut.h"
#include "rowTest.h"

#include "diskFiles.h"
#include "fakeOutbox.h"
#include "hardwareLog.h"
#include "restartHandover.h"
#include "sqliteInventory.h"
#include "stateDir.h"
#include "swmdTest.h"

#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>

namespace merlow::board::test {
namespace {

namespace fs = std::filesystem;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Eq;
using testing::HasSubstr;
using testing::IsEmpty;

// Sanitizers make each start many times as dear.
#if defined(MERLOW_ADDRESS_SANITIZER) || defined(MERLOW_THREAD_SANITIZER)
constexpr std::size_t stride = 3;
#else
constexpr std::size_t stride = 1;
#endif

class PowerCutTest : public testing::Test {
protected:
    PowerCutTest()
    {
        std::string path = fs::temp_directory_path() / "merlow-power.XXXXXX";
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        m_folder = path;
        fs::create_directory(m_folder / "before");
        fs::create_directory(m_folder / "after");
        use("before");
    }

    ~PowerCutTest() override
    {
        unsetenv("MERLOW_STATE_DIR");
        unsetenv("MERLOW_RUN_DIR");
        fs::remove_all(m_folder);
    }

    /// The disk of all that is made from here on.
    void use(const char* disk)
    {
        m_disk = m_folder / disk;
        setenv("MERLOW_RUN_DIR", m_disk.c_str(), 1);
        if (!m_isInRunFolder) {
            setenv("MERLOW_STATE_DIR", (m_disk / "state").c_str(), 1);
        }
    }

    void watch() { m_watch = std::make_unique<PowerCutWatch>(m_disk); }

    /// Has `check` look at what each of the cuts leaves.
    template <class Check> void checkEach(Check check)
    {
        const std::vector<PowerCut> cuts = m_watch->cuts();
        m_watch.reset();
        use("after");
        ASSERT_GT(cuts.size(), 10U);
        for (std::size_t i = 0; i < cuts.size() && !HasFailure(); i += stride) {
            const PowerCut& cut = cuts[i];
            SCOPED_TRACE("after step " + std::to_string(cut.acknowledged) + ", before " + cut.operation +
                         ", " + cut.loss);
            restore(cut.left, m_disk);
            check(cut);
        }
    }

    /// What the steps that were done have left, or the next one as well.
    template <class State> static auto oneOf(const std::vector<State>& states, const PowerCut& cut)
    {
        const std::size_t next = std::min(cut.acknowledged + 1, states.size() - 1);
        return AnyOf(Eq(states.at(cut.acknowledged)), Eq(states[next]));
    }

    static std::string contentOf(const fs::path& path)
    {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    bool m_isInRunFolder = false;
    fs::path m_folder;
    fs::path m_disk;
    std::unique_ptr<PowerCutWatch> m_watch;
};

// brhd's hardware log

using Entries = std::vector<std::string>;

class HardwareLogPowerCutTest : public PowerCutTest {
protected:
    [[nodiscard]] fs::path file() const { return m_disk / "state/hardwareLog.db"; }

    HardwareLog& open()
    {
        m_log.reset();
        m_outbox.logged.clear();
        m_log = std::make_unique<HardwareLog>(file(), m_budgets, m_outbox);
        m_log->begin();
        return *m_log;
    }
    [[nodiscard]] static bool append(HardwareLog& log, Entries entries)
    {
        return log.append({7, "label", std::nullopt, std::move(entries)});
    }
    /// A step that leaves these entries.
    void add(Entries entries, Entries left)
    {
        EXPECT_TRUE(append(*m_log, std::move(entries)));
        m_watch->acknowledge();
        m_states.push_back(std::move(left));
    }
    void expectOldOrNew(const PowerCut& cut)
    {
        HardwareLog& log = open();
        const auto entries = log.read(7);
        ASSERT_TRUE(entries);
        EXPECT_THAT(*entries, oneOf(m_states, cut));
        EXPECT_TRUE(append(log, {"more"}));
        EXPECT_EQ(log.read(7).value_or(Entries{}).back(), "more");
    }
    [[nodiscard]] Entries errors() const
    {
        Entries texts;
        for (const auto& [level, text] : m_outbox.logged) {
            if (level == LogLevel::error) {
                texts.push_back(text);
            }
        }
        return texts;
    }

    HardwareLogDescription m_budgets{40, {}};
    FakeOutbox m_outbox;
    std::unique_ptr<HardwareLog> m_log;
    std::vector<Entries> m_states{{}};
};

TEST_F(HardwareLogPowerCutTest, whatWasSaidYesToIsThereAndOfTheRestAllOrNothing)
{
    watch();
    open();
    add({"one"}, {"one"});
    add({"two", "three"}, {"one", "two", "three"});
    open(); // the end of a process moves the write-ahead log into the database
    add({std::string(30, 'x')}, {"three", std::string(30, 'x')});
    m_log.reset();
    checkEach([this](const PowerCut& cut) {
        expectOldOrNew(cut);
        EXPECT_THAT(errors(), IsEmpty()) << "nothing was lost";
        m_log.reset();
    });
}

TEST_F(HardwareLogPowerCutTest, aDamagedOneIsKeptWhileItIsMovedAside)
{
    const std::string damaged(3000, 'x');
    const std::string damagedWal(700, 'y');
    fs::create_directory(m_disk / "state");
    std::ofstream(file()) << damaged;
    std::ofstream(file().string() + "-wal") << damagedWal;
    watch();
    open();
    add({"one"}, {"one"});
    m_log.reset();
    checkEach([&](const PowerCut& cut) {
        const bool isStillThere = contentOf(file()) == damaged;
        expectOldOrNew(cut);
        m_log.reset();
        Entries kept;
        for (const auto& entry : fs::directory_iterator(m_disk / "state")) {
            const std::string name = entry.path().filename().string();
            // SQLite's index of a write-ahead log may lie beside one that was read; it holds nothing.
            if (name.starts_with("hardwareLog.db.damaged-") && !name.ends_with("-shm")) {
                kept.push_back(contentOf(entry.path()));
            }
        }
        EXPECT_THAT(kept, testing::UnorderedElementsAre(damaged, damagedWal));
        if (isStillThere) {
            EXPECT_THAT(errors(),
                        ElementsAre(HasSubstr("it is kept as"), HasSubstr("a new one is begun; entries")));
        }
    });
}

// swmd's store

class SwStorePowerCutTest : public PowerCutTest {
protected:
    /// The process that has the store, or had it before the next one starts.
    struct StoreProcess {
        DiskFiles files;
        SqliteInventory inventory;
        std::unique_ptr<SwStore> store;
    };

    SwStore& open(const char* running = nullptr)
    {
        m_process.reset();
        m_process = std::make_unique<StoreProcess>();
        EXPECT_EQ(m_process->files.open(), "");
        EXPECT_EQ(m_process->inventory.open(m_process->files.place() + "/inventory.db"), "");
        SwStoreConfig config{2, softwareOf("QXR1_R1A"), {}};
        config.writeBackBytes = 10;
        if (running != nullptr) {
            config.running = softwareOf(running);
        }
        m_process->store = std::make_unique<SwStore>(config, m_process->files, m_process->inventory);
        m_said.clear();
        EXPECT_EQ(m_process->store->open(m_said), "");
        return *m_process->store;
    }
    void acknowledge(const char* left)
    {
        m_watch->acknowledge();
        EXPECT_EQ(test::contentOf(*m_process->store), left);
        m_states.emplace_back(left);
    }
    /// Of the store's modules.
    [[nodiscard]] static std::vector<std::string> moduleFilesIn(const fs::path& folder)
    {
        std::vector<std::string> names;
        std::error_code noFolder;
        for (const auto& entry : fs::directory_iterator(folder, noFolder)) {
            if (!entry.path().filename().string().starts_with("inventory.db")) {
                names.push_back(entry.path().filename());
            }
        }
        return names;
    }

    std::unique_ptr<StoreProcess> m_process;
    std::vector<std::string> m_said;
    std::vector<std::string> m_states{"0 QXR1_R1A running\n"};
};

TEST_F(SwStorePowerCutTest, eachModuleIsWholeOrGoneAndWhatIsCleanedIsTold)
{
    const std::map<std::string, std::string> contents{{"QXR2_R1A", "first"},
                                                      {"QXR3_R1A", std::string(900, 's')}};
    watch();
    open();
    acknowledge("0 QXR1_R1A running\n");
    EXPECT_TRUE(loadInto(*m_process->store, "QXR2_R1A", contents.at("QXR2_R1A")));
    acknowledge("0 QXR1_R1A running\n1 QXR2_R1A\n");
    EXPECT_TRUE(loadInto(*m_process->store, "QXR3_R1A", contents.at("QXR3_R1A")));
    acknowledge("0 QXR1_R1A running\n1 QXR2_R1A\n2 QXR3_R1A\n");
    EXPECT_EQ(m_process->store->remove(softwareOf("QXR2_R1A")), SwStore::Removed::done);
    acknowledge("0 QXR1_R1A running\n2 QXR3_R1A\n");
    open("QXR3_R1A");
    acknowledge("0 QXR1_R1A\n2 QXR3_R1A running\n");
    m_process.reset();
    checkEach([&](const PowerCut& cut) {
        const fs::path folder = m_disk / "state/software";
        const auto before = moduleFilesIn(folder);
        open();
        EXPECT_THAT(test::contentOf(*m_process->store), oneOf(m_states, cut));
        std::vector<std::string> expected;
        for (const StoredModule& module : m_process->store->modules()) {
            if (module.slot != 0) {
                expected.push_back(toText(module.id) + ".lm");
                EXPECT_EQ(bytesOf(contentOf(folder / expected.back())),
                          moduleOf(module.id, contents.at(toText(module.id))));
            }
        }
        EXPECT_THAT(moduleFilesIn(folder), testing::UnorderedElementsAreArray(expected));
        for (const std::string& name : before) {
            if (!fs::exists(folder / name)) {
                EXPECT_THAT(m_said, Contains(HasSubstr("removed the file " + name)));
            }
        }
        open();
        EXPECT_THAT(m_said, IsEmpty()) << "cleaned once";
        m_process.reset();
    });
}

// The restart order, which brhd hands over to swmd

class RestartOrderPowerCutTest : public PowerCutTest, public WithRow<bool> {
protected:
    RestartOrderPowerCutTest()
    {
        m_isInRunFolder = row();
        if (m_isInRunFolder) {
            unsetenv("MERLOW_STATE_DIR");
        }
    }

    static RestartOrder order(const char* label)
    {
        RestartOrder order;
        order.label = label;
        order.loadModule = "QXR2_R1A";
        return order;
    }
    /// The last order, whether the board has yet to restart for it, and whether it waits for a start.
    static std::string handedOver()
    {
        StateFile given = givenRestartOrder();
        StateFile carriedOut = carriedOutRestartOrder();
        StateFile served = servedRestartOrder();
        const auto last = loadRestartOrder(given);
        EXPECT_EQ(last.error, "");
        const auto due = pendingRestartOrder(given, carriedOut);
        EXPECT_EQ(due.error, "");
        const auto pending = pendingRestartOrder(given, served);
        EXPECT_EQ(pending.error, "");
        return !last.order ? "none"
                           : last.order->label + (due.order ? " is due," : "") +
                                 (pending.order ? " waits" : " served");
    }
};

ROW_TEST(RestartOrderPowerCutTest, theOldOrderOrTheNewOneIsThere)
{
    std::vector<std::string> states{"none"};
    const auto acknowledge = [&](const char* state) {
        EXPECT_EQ(handedOver(), state);
        m_watch->acknowledge();
        states.emplace_back(state);
    };
    StateFile given = givenRestartOrder();
    StateFile carriedOut = carriedOutRestartOrder();
    StateFile served = servedRestartOrder();
    watch();
    EXPECT_EQ(saveRestartOrder(given, order("first")), "");
    acknowledge("first is due, waits");
    EXPECT_EQ(saveRestartOrder(carriedOut, order("first")), "");
    acknowledge("first waits");
    RestartHandover handover(given, served);
    std::vector<std::string> said;
    EXPECT_EQ(handover.begin(said), softwareOf("QXR2_R1A"));
    handover.settled(said);
    EXPECT_EQ(said.size(), 1U);
    acknowledge("first served");
    EXPECT_EQ(saveRestartOrder(given, order("second")), "");
    acknowledge("second is due, waits");
    checkEach([&](const PowerCut& cut) {
        EXPECT_THAT(handedOver(), oneOf(states, cut));
        EXPECT_EQ(saveRestartOrder(given, order("next")), "");
        EXPECT_EQ(handedOver(), "next is due, waits");
    });
}

ROW_TEST(RestartOrderPowerCutTest, anOrderThatCannotBeKeptIsNotThere)
{
    for (const bool hasOld : {true, false}) {
        int failed = 0;
        for (bool wasReached = true; wasReached; ++failed) {
            SCOPED_TRACE("operation " + std::to_string(failed));
            restore({{"state/", ""}}, m_disk);
            StateFile given = givenRestartOrder();
            EXPECT_EQ(hasOld ? saveRestartOrder(given, order("old")) : "", "");
            watch();
            m_watch->fail(failed);
            const std::string error = saveRestartOrder(given, order("new"));
            wasReached = m_watch->hasFailed();
            m_watch.reset();
            EXPECT_EQ(error, wasReached ? "Input/output error" : "");
            EXPECT_EQ(handedOver(), !wasReached ? "new is due, waits"
                                    : hasOld    ? "old is due, waits"
                                                : "none");
        }
        EXPECT_EQ(failed, 5) << "write, sync, rename, folder; and none";
    }
}

const bool inRunFolder[] = {false, true};
TEST_ROWS(Folders, RestartOrderPowerCutTest, inRunFolder,
          [](const auto& row) { return row ? "inRunFolder" : "chosen"; });

} // namespace
} // namespace merlow::board::test
