#include "diskFiles.h"
#include "rowTest.h"
#include "sqliteInventory.h"
#include "swmdTest.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <sys/stat.h>

namespace merlow::board::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const SwStoreConfig twoSlots{2, softwareOf("QXR1_R1A"), {}};

class SwStoreTest : public testing::Test {
protected:
    /// The store of a new process on the same disk.
    SwStore& open(const SwStoreConfig& config = twoSlots)
    {
        m_store = std::make_unique<SwStore>(config, m_disk.files, m_disk.inventory);
        m_said.clear();
        m_openError = m_store->open(m_said);
        return *m_store;
    }

    std::vector<std::string> fileNames() const
    {
        std::vector<std::string> names;
        for (const auto& [name, content] : m_disk.files.files) {
            names.push_back(name);
        }
        return names;
    }

    MemoryDisk m_disk;
    std::unique_ptr<SwStore> m_store;
    std::vector<std::string> m_said;
    std::string m_openError;
};

TEST_F(SwStoreTest, aNewStoreHoldsThePreinstalledModuleAndRunsIt)
{
    EXPECT_EQ(contentOf(open()), "0 QXR1_R1A running\n");
    EXPECT_EQ(m_openError, "");
    EXPECT_THAT(m_said, IsEmpty());
    EXPECT_EQ(contentOf(open({2, {}, {}})), "");
    EXPECT_THAT(m_said, ElementsAre("QXR1_R1A is preinstalled no more"));
    EXPECT_EQ(m_store->running(), nullptr);
    EXPECT_EQ(contentOf(open({2, {}, {}})), "");
    EXPECT_THAT(m_said, IsEmpty());
}

TEST_F(SwStoreTest, aLoadIsBroughtToTheDiskAsItComes)
{
    SwStoreConfig config = twoSlots;
    config.writeBackBytes = 100;
    open(config);
    const auto id = softwareOf("QXR2_R1A");
    const Bytes module = moduleOf(id, std::string(180, 'x'));
    ASSERT_EQ(m_store->beginLoad(id), SwStore::Begun::started);
    for (BytesView rest = module; !rest.empty();
         rest = rest.subspan(std::min<std::size_t>(60, rest.size()))) {
        m_store->addPiece(rest.first(std::min<std::size_t>(60, rest.size())));
    }
    ASSERT_TRUE(m_store->endLoad());
    EXPECT_THAT(m_disk.files.files.at("QXR2_R1A.lm")->writeBacks, ElementsAre(120, 240));

    ASSERT_EQ(m_store->beginLoad(softwareOf("QXR3_R1A")), SwStore::Begun::started);
    m_disk.fate.arm(DiskFate::Kind::fail, 1);
    const Bytes other = moduleOf(softwareOf("QXR3_R1A"), std::string(180, 'x'));
    m_store->addPiece(other);
    EXPECT_TRUE(m_disk.fate.happened());
    m_disk.fate.disarm();
    EXPECT_FALSE(m_store->endLoad());
    EXPECT_EQ(m_store->error(), "it cannot be written: No space left on device");
}

TEST_F(SwStoreTest, whatIsLoadedIsThereAfterARestart)
{
    EXPECT_TRUE(loadInto(open(), "QXR2/7_R2B", "the software"));
    EXPECT_EQ(contentOf(*m_store), "0 QXR1_R1A running\n1 QXR2/7_R2B\n");
    const Bytes file = m_disk.files.files.at("QXR2%7_R2B.lm")->synced;
    EXPECT_EQ(file, moduleOf(softwareOf("QXR2/7_R2B"), "the software"));
    EXPECT_EQ(m_store->modules().back().size, file.size());
    EXPECT_EQ(contentOf(open()), "0 QXR1_R1A running\n1 QXR2/7_R2B\n");
    EXPECT_THAT(m_said, IsEmpty());
}

TEST_F(SwStoreTest, slotsAreTakenFromTheLowestAndRunOut)
{
    SwStore& store = open();
    EXPECT_TRUE(loadInto(store, "QXR2_R1A", "a"));
    EXPECT_TRUE(loadInto(store, "QXR3_R1A", "b"));
    EXPECT_EQ(store.beginLoad(softwareOf("QXR4_R1A")), SwStore::Begun::noSlot);
    EXPECT_EQ(store.remove(softwareOf("QXR2_R1A")), SwStore::Removed::done);
    EXPECT_TRUE(loadInto(store, "QXR4_R1A", "c"));
    EXPECT_EQ(contentOf(store), "0 QXR1_R1A running\n1 QXR4_R1A\n2 QXR3_R1A\n");
    // Fewer slots than modules: nothing is lost, and nothing fits in.
    EXPECT_EQ(contentOf(open({1, softwareOf("QXR1_R1A"), {}})),
              "0 QXR1_R1A running\n1 QXR4_R1A\n2 QXR3_R1A\n");
    EXPECT_EQ(m_store->remove(softwareOf("QXR4_R1A")), SwStore::Removed::done);
    EXPECT_EQ(m_store->beginLoad(softwareOf("QXR4_R1A")), SwStore::Begun::noSlot);
}

TEST_F(SwStoreTest, loadsThatCannotBegin)
{
    SwStore& store = open();
    EXPECT_TRUE(loadInto(store, "QXR2_R1A", "a"));
    EXPECT_EQ(store.beginLoad(softwareOf("QXR1_R1A")), SwStore::Begun::running);
    EXPECT_EQ(store.beginLoad(softwareOf("QXR2_R1A")), SwStore::Begun::alreadyLoaded);
    EXPECT_EQ(store.beginLoad(softwareOf("QXR3_R1A")), SwStore::Begun::started);
    EXPECT_EQ(store.beginLoad(softwareOf("QXR3_R1A")), SwStore::Begun::busy);
    EXPECT_EQ(store.beginLoad(softwareOf("QXR4_R1A")), SwStore::Begun::busy);
    store.dropLoad();
    store.dropLoad();
    EXPECT_EQ(contentOf(store), "0 QXR1_R1A running\n1 QXR2_R1A\n");
    EXPECT_THAT(fileNames(), ElementsAre("QXR2_R1A.lm"));
}

TEST_F(SwStoreTest, deletionsThatAreRefused)
{
    SwStore& store = open({2, softwareOf("QXR1_R1A"), softwareOf("QXR2_R1A")});
    EXPECT_THAT(m_said, ElementsAre("QXR2_R1A is not here to run"));
    EXPECT_TRUE(loadInto(store, "QXR2_R1A", "a"));
    EXPECT_EQ(contentOf(open({2, softwareOf("QXR1_R1A"), softwareOf("QXR2_R1A")})),
              "0 QXR1_R1A\n1 QXR2_R1A running\n");
    EXPECT_EQ(m_store->beginLoad(softwareOf("QXR3_R1A")), SwStore::Begun::started);
    EXPECT_EQ(m_store->remove(softwareOf("QXR1_R1A")), SwStore::Removed::readOnly);
    EXPECT_EQ(m_store->remove(softwareOf("QXR2_R1A")), SwStore::Removed::busy);
    EXPECT_EQ(m_store->remove(softwareOf("QXR3_R1A")), SwStore::Removed::busy);
    EXPECT_EQ(m_store->remove(softwareOf("QXR4_R1A")), SwStore::Removed::unknown);
    EXPECT_EQ(contentOf(open()), "0 QXR1_R1A\n1 QXR2_R1A running\n") << "what ran last runs";
}

TEST_F(SwStoreTest, aModuleThatIsNotRightIsDropped)
{
    SwStore& store = open();
    ASSERT_EQ(store.beginLoad(softwareOf("QXR2_R1A")), SwStore::Begun::started);
    Bytes module = moduleOf(softwareOf("QXR2_R1A"), "content");
    store.addPiece(BytesView(module).first(module.size() - 1)); // as from a client that died
    EXPECT_EQ(store.loadedBytes(), module.size() - 1);
    EXPECT_FALSE(store.endLoad());
    EXPECT_EQ(store.error(), "it ends after 6 of 7 bytes of content");
    EXPECT_FALSE(store.isLoading());
    ASSERT_EQ(store.beginLoad(softwareOf("QXR2_R1A")), SwStore::Begun::started);
    store.addPiece(moduleOf(softwareOf("QXR3_R1A"), "content"));
    EXPECT_FALSE(store.endLoad());
    EXPECT_EQ(store.error(), "it is QXR3_R1A, not QXR2_R1A");
    EXPECT_EQ(contentOf(store), "0 QXR1_R1A running\n");
    EXPECT_THAT(fileNames(), IsEmpty());
}

TEST_F(SwStoreTest, aModuleThatIsTooLargeIsDropped)
{
    const auto id = softwareOf("QXR2_R1A");
    const Bytes module = moduleOf(id, "content");
    for (const std::uint64_t most : {module.size(), module.size() - 1}) {
        SwStore& store = open({2, softwareOf("QXR1_R1A"), {}, most});
        const bool fits = most == module.size();
        ASSERT_EQ(store.beginLoad(id), SwStore::Begun::started);
        for (const std::byte byte : module) {
            store.addPiece(BytesView(&byte, 1));
        }
        EXPECT_EQ(m_disk.files.files["QXR2_R1A.lm.part"]->now.size(), most) << "no byte more is written";
        EXPECT_EQ(store.endLoad(), fits);
        EXPECT_EQ(store.error(), fits ? "" : "it is larger than " + std::to_string(most) + " bytes");
        EXPECT_EQ(contentOf(store), fits ? "0 QXR1_R1A running\n1 QXR2_R1A\n" : "0 QXR1_R1A running\n");
        EXPECT_EQ(fileNames().size(), fits ? 1U : 0U);
        EXPECT_EQ(store.remove(id), fits ? SwStore::Removed::done : SwStore::Removed::unknown);
    }
}

struct DamagedDiskRow {
    const char* what;
    std::function<void(MemoryDisk&)> damage;
    const char* said;
};

class DamagedSwStoreTest : public SwStoreTest, public WithRow<DamagedDiskRow> {};

const DamagedDiskRow damagedDisks[] = {
    {"fileGone", [](MemoryDisk& disk) { disk.files.files.erase("QXR2_R1A.lm"); },
     "dropped QXR2_R1A: its file is gone"},
    {"fileCut", [](MemoryDisk& disk) { disk.files.files["QXR2_R1A.lm"]->now.resize(90); },
     "dropped QXR2_R1A: its file has 90 bytes of 97"},
    {"fileOfAnother",
     [](MemoryDisk& disk) { disk.files.files["QXR2_R1A.lm"]->now = moduleOf(softwareOf("QXR4_R1A"), "b"); },
     "dropped QXR2_R1A: its file is another one"},
    {"notEnded", [](MemoryDisk& disk) { disk.inventory.entries[1].status = StoredModule::Status::writing; },
     "dropped QXR2_R1A: its load had not ended"},
    {"calledPreinstalled",
     [](MemoryDisk& disk) { disk.inventory.entries[1].type = StoredModule::Type::preinstalled; },
     "dropped QXR2_R1A: it is in the slot of a load"},
    {"twice",
     [](MemoryDisk& disk) {
         disk.inventory.entries[3] = disk.inventory.entries[2];
         disk.inventory.entries[3].slot = 3;
         disk.inventory.entries.erase(1);
     },
     "dropped QXR3_R1A: it is in slot 2 too"},
};

ROW_TEST(DamagedSwStoreTest, losesTheModuleAndSaysSo)
{
    EXPECT_TRUE(loadInto(open(), "QXR2_R1A", "a"));
    EXPECT_TRUE(loadInto(*m_store, "QXR3_R1A", "b"));
    m_disk.files.files["notes.txt"] = std::make_shared<MemoryFiles::Content>();
    open({2, softwareOf("QXR1_R1A"), softwareOf("QXR2_R1A")});
    row().damage(m_disk);
    EXPECT_EQ(contentOf(open()), "0 QXR1_R1A running\n2 QXR3_R1A\n");
    EXPECT_EQ(m_openError, "");
    ASSERT_THAT(m_said, testing::Not(IsEmpty()));
    EXPECT_EQ(m_said.front(), row().said);
    EXPECT_THAT(fileNames(), ElementsAre("QXR3_R1A.lm", "notes.txt"));
    open();
    EXPECT_THAT(m_said, IsEmpty());
}

TEST_ROWS(All, DamagedSwStoreTest, damagedDisks, [](const auto& row) { return row.what; });

TEST_F(SwStoreTest, aDamagedEntryOfThePreinstalledModuleIsMended)
{
    open();
    auto& entry = m_disk.inventory.entries[0];
    const StoredModule whole = entry;
    entry.type = StoredModule::Type::application;
    entry.size = 5;
    entry.status = StoredModule::Status::writing;
    entry.access = StoredModule::Access::readWrite;
    EXPECT_EQ(contentOf(open()), "0 QXR1_R1A running\n");
    EXPECT_EQ(m_openError, "");
    EXPECT_THAT(m_said, ElementsAre("mended the entry of QXR1_R1A, which is preinstalled"));
    EXPECT_EQ(m_disk.inventory.entries[0], whole);
    open();
    EXPECT_THAT(m_said, IsEmpty());
}

TEST_F(SwStoreTest, whatIsPreinstalledIsInNoOtherSlot)
{
    EXPECT_TRUE(loadInto(open(), "QXR2_R1A", "a"));
    m_disk.inventory.entries[1].id = softwareOf("QXR1_R1A");
    m_disk.files.files["QXR1_R1A.lm"] = std::make_shared<MemoryFiles::Content>();
    m_disk.files.files["QXR1_R1A.lm"]->now = moduleOf(softwareOf("QXR1_R1A"), "a");
    EXPECT_EQ(contentOf(open()), "0 QXR1_R1A running\n");
    EXPECT_EQ(m_openError, "");
    EXPECT_EQ(m_said.front(), "dropped QXR1_R1A: it is preinstalled now");
    EXPECT_THAT(fileNames(), IsEmpty());
}

TEST_F(SwStoreTest, oneModuleRunsWhateverIsMarked)
{
    EXPECT_TRUE(loadInto(open(), "QXR2_R1A", "a"));
    m_disk.inventory.entries[1].running = true;
    EXPECT_EQ(contentOf(open()), "0 QXR1_R1A running\n1 QXR2_R1A\n");
    EXPECT_FALSE(m_disk.inventory.entries[1].running);
}

TEST_F(SwStoreTest, aFileThatCannotBeReadLosesNothing)
{
    EXPECT_TRUE(loadInto(open(), "QXR2_R1A", "a"));
    m_disk.files.readError = "Input/output error";
    open();
    EXPECT_EQ(m_openError, "the file QXR2_R1A.lm cannot be read: Input/output error");
    m_disk.files.readError = "";
    EXPECT_EQ(contentOf(open()), "0 QXR1_R1A running\n1 QXR2_R1A\n");
}

TEST_F(SwStoreTest, aLoadedModuleGivesWayToThePreinstalledOneOfItsName)
{
    EXPECT_TRUE(loadInto(open(), "QXR2_R1A", "a"));
    EXPECT_EQ(contentOf(open({2, softwareOf("QXR2_R1A"), {}})), "0 QXR2_R1A running\n");
    EXPECT_THAT(m_said,
                ElementsAre("QXR1_R1A is preinstalled no more", "dropped QXR2_R1A: it is preinstalled now",
                            "removed the file QXR2_R1A.lm of 97 bytes, which belongs to no module"));
}

struct CutRow {
    const char* what;
    DiskFate::Kind kind;
    bool powerLost;
};

class CutSwStoreTest : public SwStoreTest, public WithRow<CutRow> {
protected:
    /// Runs `act` on a store that holds one module, once for each operation on disk that it makes, and lets
    /// the process die there; `check` looks at the store of the next process.
    template <class Act, class Check> int cutEach(Act act, Check check)
    {
        int operation = 0;
        for (;; ++operation) {
            SCOPED_TRACE("operation " + std::to_string(operation));
            m_disk.files.files.clear();
            m_disk.inventory.entries.clear();
            EXPECT_TRUE(loadInto(open(), "QXR2_R1A", "first"));
            m_disk.fate.arm(row().kind, operation);
            try {
                act(*m_store);
            } catch (const DiskFate::Cut&) {
            }
            const bool happened = m_disk.fate.happened();
            m_disk.fate.disarm();
            if (!happened) {
                return operation;
            }
            m_store.reset();
            if (row().powerLost) {
                m_disk.files.losePower();
            }
            open();
            EXPECT_EQ(m_openError, "");
            check(*m_store);
            expectFilesAndEntriesMatch();
        }
    }

    void expectFilesAndEntriesMatch()
    {
        std::vector<std::string> expected;
        for (const StoredModule& module : m_store->modules()) {
            EXPECT_EQ(module.status, StoredModule::Status::valid);
            if (module.slot != 0) {
                expected.push_back(toText(module.id) + ".lm");
            }
        }
        EXPECT_EQ(fileNames(), expected);
    }
};

ROW_TEST(CutSwStoreTest, aLoadThatDiesLeavesAWholeModuleOrNone)
{
    const int operations = cutEach([](SwStore& store) { (void)loadInto(store, "QXR3_R1A", "second"); },
                                   [this](SwStore& store) {
                                       ASSERT_NE(store.find(softwareOf("QXR2_R1A")), nullptr)
                                           << "an older module is not touched";
                                       if (store.find(softwareOf("QXR3_R1A")) != nullptr) {
                                           EXPECT_EQ(m_disk.files.files.at("QXR3_R1A.lm")->now,
                                                     moduleOf(softwareOf("QXR3_R1A"), "second"));
                                       } else {
                                           EXPECT_TRUE(loadInto(store, "QXR3_R1A", "second"))
                                               << "and it can be loaded again";
                                       }
                                   });
    EXPECT_EQ(operations, 8) << "entry, file, two pieces, sync, rename, folder, entry";
}

ROW_TEST(CutSwStoreTest, aDeletionThatDiesLeavesAWholeModuleOrNone)
{
    const int operations = cutEach([](SwStore& store) { (void)store.remove(softwareOf("QXR2_R1A")); },
                                   [this](SwStore& store) {
                                       if (store.find(softwareOf("QXR2_R1A")) != nullptr) {
                                           EXPECT_EQ(m_disk.files.files.at("QXR2_R1A.lm")->now,
                                                     moduleOf(softwareOf("QXR2_R1A"), "first"));
                                       }
                                   });
    EXPECT_EQ(operations, 2) << "entry, file";
}

const CutRow cuts[] = {
    {"killedBefore", DiskFate::Kind::cutBefore, false},
    {"killedAfter", DiskFate::Kind::cutAfter, false},
    {"powerLostBefore", DiskFate::Kind::cutBefore, true},
    {"powerLostAfter", DiskFate::Kind::cutAfter, true},
};

TEST_ROWS(All, CutSwStoreTest, cuts, [](const auto& row) { return row.what; });

TEST_F(SwStoreTest, aLoadIsValidBeforeItIsConfirmed)
{
    EXPECT_TRUE(loadInto(open(), "QXR2_R1A", "first"));
    m_disk.files.losePower();
    EXPECT_EQ(contentOf(open()), "0 QXR1_R1A running\n1 QXR2_R1A\n");
}

TEST_F(SwStoreTest, aDiskThatFailsOnceCostsOneLoad)
{
    for (int operation = 0; operation < 8; ++operation) {
        SCOPED_TRACE(operation);
        m_disk.files.files.clear();
        m_disk.inventory.entries.clear();
        EXPECT_TRUE(loadInto(open(), "QXR2_R1A", "first"));
        m_disk.fate.arm(DiskFate::Kind::fail, operation);
        EXPECT_FALSE(loadInto(*m_store, "QXR3_R1A", "second"));
        EXPECT_THAT(m_store->error(), HasSubstr("No space left on device"));
        EXPECT_TRUE(m_disk.fate.happened());
        m_disk.fate.disarm();
        EXPECT_EQ(contentOf(*m_store), "0 QXR1_R1A running\n1 QXR2_R1A\n");
        EXPECT_THAT(fileNames(), ElementsAre("QXR2_R1A.lm"));
        EXPECT_EQ(m_disk.inventory.entries.size(), 2U);
        EXPECT_TRUE(loadInto(*m_store, "QXR3_R1A", "second"));
    }
}

TEST_F(SwStoreTest, aDeletionThatFailsIsTold)
{
    EXPECT_TRUE(loadInto(open(), "QXR2_R1A", "first"));
    m_disk.fate.arm(DiskFate::Kind::fail, 0);
    EXPECT_EQ(m_store->remove(softwareOf("QXR2_R1A")), SwStore::Removed::failed);
    EXPECT_EQ(contentOf(*m_store), "0 QXR1_R1A running\n1 QXR2_R1A\n");
    m_disk.fate.arm(DiskFate::Kind::fail, 1);
    EXPECT_EQ(m_store->remove(softwareOf("QXR2_R1A")), SwStore::Removed::done) << "its file goes later";
    EXPECT_EQ(m_store->error(), "No space left on device");
    m_disk.fate.disarm();
    open();
    EXPECT_THAT(m_said, ElementsAre("removed the file QXR2_R1A.lm of 101 bytes, which belongs to no module"));
}

TEST_F(SwStoreTest, theComponentListNamesWhatIsValid)
{
    SwStore& store = open();
    EXPECT_TRUE(loadInto(store, "QXR2/7_R2B", "a"));
    EXPECT_EQ(store.beginLoad(softwareOf("QXR3_R1A")), SwStore::Begun::started);
    EXPECT_EQ(store.componentList(),
              "<SwCompList>\n"
              "<LmcList>\n<ProdNbr>QXR1</ProdNbr>\n<Rev>R1A</Rev>\n<Preinstalled/>\n<SwList>\n<ListItem>\n"
              "<ProdNbr>QXR1</ProdNbr>\n<StartRev>R1A</StartRev>\n<StopRev>R1A</StopRev>\n"
              "</ListItem>\n</SwList>\n</LmcList>\n"
              "<LmcList>\n<ProdNbr>QXR2/7</ProdNbr>\n<Rev>R2B</Rev>\n<SwList>\n<ListItem>\n"
              "<ProdNbr>QXR2/7</ProdNbr>\n<StartRev>R2B</StartRev>\n<StopRev>R2B</StopRev>\n"
              "</ListItem>\n</SwList>\n</LmcList>\n"
              "</SwCompList>\n");
}

/// The real folder and the real database.
class SwStoreDiskTest : public testing::Test {
protected:
    SwStoreDiskTest()
    {
        std::string path = fs::temp_directory_path() / "merlow-store.XXXXXX";
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        m_folder = path;
        setenv("MERLOW_STATE_DIR", (m_folder / "state").c_str(), 1);
    }
    ~SwStoreDiskTest() override
    {
        unsetenv("MERLOW_STATE_DIR");
        fs::remove_all(m_folder);
    }

    std::string inventoryPath() const { return m_folder / "state/software/inventory.db"; }

    fs::path m_folder;
};

TEST_F(SwStoreDiskTest, whatIsLoadedIsAFileAndAnEntry)
{
    for (const bool again : {false, true}) {
        DiskFiles files;
        ASSERT_EQ(files.open(), "");
        EXPECT_EQ(files.place(), m_folder / "state/software");
        SqliteInventory inventory;
        ASSERT_EQ(inventory.open(inventoryPath()), "");
        SwStore store(twoSlots, files, inventory);
        std::vector<std::string> said;
        EXPECT_EQ(store.open(said), "");
        EXPECT_THAT(said, IsEmpty());
        if (!again) {
            EXPECT_TRUE(loadInto(store, "QXR2/7_R2B", "the software"));
            EXPECT_TRUE(loadInto(store, "QXR3_R1A", "another"));
            EXPECT_EQ(store.remove(softwareOf("QXR3_R1A")), SwStore::Removed::done);
            EXPECT_EQ(store.beginLoad(softwareOf("QXR3_R1A")), SwStore::Begun::started);
            store.dropLoad();
        }
        EXPECT_EQ(contentOf(store), "0 QXR1_R1A running\n1 QXR2/7_R2B\n");
    }
    const fs::path file = m_folder / "state/software/QXR2%7_R2B.lm";
    std::ifstream in(file, std::ios::binary);
    const std::string content((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(bytesOf(content), moduleOf(softwareOf("QXR2/7_R2B"), "the software"));
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_folder / "state/software")) {
        names.push_back(entry.path().filename());
        struct stat status {};
        EXPECT_EQ(stat(entry.path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0600U) << entry.path();
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("QXR2%7_R2B.lm", "inventory.db"));
}

TEST_F(SwStoreDiskTest, theInventoryKeepsEveryColumn)
{
    using Module = StoredModule;
    const std::vector<Module> modules{{0, softwareOf("QXR1_R1A"), Module::Type::preinstalled, 0,
                                       Module::Status::valid, Module::Access::readOnly, true},
                                      {3, softwareOf("QXR2/7_R2B"), Module::Type::application, 5'000'000'000,
                                       Module::Status::writing, Module::Access::readWrite, false},
                                      {7, softwareOf("QXR3_R1A"), Module::Type::boot, 1,
                                       Module::Status::erasing, Module::Access::readOnly, false}};
    std::vector<Module> loaded;
    const std::string path = m_folder / "inventory.db";
    {
        SqliteInventory inventory;
        ASSERT_EQ(inventory.open(path), "");
        for (const Module& module : modules) {
            EXPECT_EQ(inventory.put(module), "");
        }
    }
    std::string header(20, '\0');
    std::ifstream(path, std::ios::binary).read(header.data(), static_cast<std::streamsize>(header.size()));
    EXPECT_EQ(header.substr(18), "\2\2") << "a write-ahead log, for reading and for writing";
    SqliteInventory inventory;
    ASSERT_EQ(inventory.open(path), "");
    EXPECT_EQ(inventory.load(loaded), "");
    EXPECT_EQ(loaded, modules);
    EXPECT_EQ(inventory.setRunning(7), "");
    EXPECT_EQ(inventory.remove(3), "");
    EXPECT_EQ(inventory.load(loaded), "");
    ASSERT_EQ(loaded.size(), 2U);
    EXPECT_FALSE(loaded[0].running);
    EXPECT_TRUE(loaded[1].running);
    EXPECT_EQ(inventory.setRunning({}), "");
    EXPECT_EQ(inventory.load(loaded), "");
    EXPECT_FALSE(loaded[1].running);
}

TEST_F(SwStoreDiskTest, aDatabaseThatIsNoneIsLeftAsItIs)
{
    const std::string path = m_folder / "inventory.db";
    std::ofstream(path) << std::string(2000, 'x');
    SqliteInventory inventory;
    EXPECT_NE(inventory.open(path), "");
    EXPECT_EQ(fs::file_size(path), 2000U);
    EXPECT_NE(SqliteInventory().open(m_folder / "missing/inventory.db"), "");
}

struct OddInventoryRow {
    const char* what;
    const char* sql;
    const char* error;
};

class OddInventoryTest : public SwStoreDiskTest, public WithRow<OddInventoryRow> {};

const OddInventoryRow oddInventories[] = {
    {"slotTooLarge", "UPDATE module SET slot = 4294967297",
     "the entry of slot 4294967297 has values that are none"},
    {"slotBelowZero", "UPDATE module SET slot = -1", "the entry of slot -1 has values that are none"},
    {"sizeBelowZero", "UPDATE module SET size = -1", "the entry of slot 1 has values that are none"},
    {"otherTables",
     "DROP TABLE module; CREATE TABLE module (slot, number, revision, type, size, status, access)",
     "its tables are not those of the layout 1"},
    {"valuesOfOtherTypes",
     "PRAGMA writable_schema = ON; UPDATE sqlite_schema SET sql = replace(sql, 'size INTEGER', 'size TEXT')",
     "non-TEXT value in module.size"},
};

ROW_TEST(OddInventoryTest, isNotUsedAndLeftAsItIs)
{
    const std::string path = m_folder / "inventory.db";
    {
        SqliteInventory inventory;
        ASSERT_EQ(inventory.open(path), "");
        EXPECT_EQ(inventory.put({1, softwareOf("QXR2_R1A"), {}, 97, StoredModule::Status::valid, {}, false}),
                  "");
    }
    {
        SqliteDatabase database;
        ASSERT_TRUE(database.open(path) && database.execute(row().sql)) << database.reason();
    }
    for (unsigned int i = 0; i < 2; ++i) {
        SqliteInventory inventory;
        std::vector<StoredModule> modules;
        std::string error = inventory.open(path);
        if (error.empty()) {
            error = inventory.load(modules);
        }
        EXPECT_EQ(error, row().error);
    }
}

TEST_ROWS(All, OddInventoryTest, oddInventories, [](const auto& row) { return row.what; });

TEST_F(SwStoreDiskTest, aFileIsBroughtToTheDiskPieceByPiece)
{
    DiskFiles files;
    ASSERT_EQ(files.open(), "");
    std::unique_ptr<StoreFile> file;
    ASSERT_EQ(files.create("file", file), "");
    EXPECT_EQ(file->writeBack(), "");
    for (const char* piece : {"one ", "two ", "three"}) {
        EXPECT_EQ(file->write(bytesOf(piece)), "");
        EXPECT_EQ(file->writeBack(), "");
        EXPECT_EQ(file->writeBack(), "");
    }
    EXPECT_EQ(file->sync(), "");
    Bytes content;
    EXPECT_EQ(files.readStart("file", 100, content), "");
    EXPECT_EQ(content, bytesOf("one two three"));
}

TEST_F(SwStoreDiskTest, aFolderHasOneUser)
{
    DiskFiles first;
    ASSERT_EQ(first.open(), "");
    DiskFiles second;
    EXPECT_EQ(second.open(), "another swmd has its store in " + (m_folder / "state/software").string());
}

TEST_F(SwStoreDiskTest, whatCannotBeDoneIsTold)
{
    std::ofstream(m_folder / "file") << "no folder";
    setenv("MERLOW_STATE_DIR", (m_folder / "file/state").c_str(), 1);
    EXPECT_THAT(DiskFiles().open(), HasSubstr("cannot be used"));
    setenv("MERLOW_STATE_DIR", (m_folder / "state").c_str(), 1);
    DiskFiles files;
    ASSERT_EQ(files.open(), "");
    std::unique_ptr<StoreFile> file;
    Bytes start;
    fs::create_directory(m_folder / "state/software/folder");
    EXPECT_NE(files.create("folder", file), "");
    EXPECT_EQ(file, nullptr);
    EXPECT_NE(files.readStart("missing", 10, start), "");
    EXPECT_NE(files.rename("missing", "other"), "");
    EXPECT_NE(files.remove("folder"), "");
    EXPECT_EQ(files.remove("missing"), "");
}

} // namespace
} // namespace merlow::board::test
