/// What a loss of power can leave of a folder, at each moment of what a test does in it.
#pragma once

#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <sys/types.h>
#include <vector>

namespace merlow::board::test {

/// The files of a folder with their content, and its folders with a '/' behind, by their paths below it.
using DiskImage = std::map<std::string, std::string>;

/// Has `folder` hold these files and folders, and nothing else.
void restore(const DiskImage& image, const std::filesystem::path& folder);

struct PowerCut {
    std::size_t acknowledged; ///< of the test's steps, those that were done
    std::string operation;    ///< what was to be done next
    const char* loss;         ///< what became of that which was not synced
    DiskImage left;
};

/// Sees, while it lives, the calls of the C library by which this process changes what is below a folder,
/// those of SQLite and of the C++ library too. The content of a file is synced by its own sync, names by that
/// of the folder that they are in. One at a time, in one thread.
class PowerCutWatch {
public:
    /// All that the folder holds counts as synced.
    explicit PowerCutWatch(const std::filesystem::path& folder);
    ~PowerCutWatch();
    PowerCutWatch(const PowerCutWatch&) = delete;
    PowerCutWatch& operator=(const PowerCutWatch&) = delete;

    /// The test has done another of its steps: no cut from here on may undo it.
    void acknowledge() { ++m_acknowledged; }
    /// Has the operation of this number fail from here on, 0 for the next one.
    void fail(int operation) { m_untilFailure = operation; }
    /// Whether it has come.
    [[nodiscard]] bool hasFailed() const { return m_untilFailure < 0; }

    /// All that could have been left so far: for each operation without what was not synced, with it, with
    /// the names only, with the contents only, and with a random part.
    [[nodiscard]] const std::vector<PowerCut>& cuts();

    // For the calls.
    static PowerCutWatch* active;
    [[nodiscard]] bool isBelow(int fd) const;
    [[nodiscard]] bool isBelow(int folder, const char* path) const;
    /// False, with `errno`, when the operation has to fail.
    [[nodiscard]] bool begin(const char* operation);
    void sync(int fd);

private:
    using Names = std::map<std::string, ino_t>;

    /// Its descriptor stays open: SQLite's locks would go with it, and its number could become another one's.
    struct Inode {
        int fd = -1;
        Names names;
        Names syncedNames;
        std::string syncedContent;
        bool isFolder = false;
    };

    ino_t look(const std::filesystem::path& path);
    void record(const std::string& operation);
    void keep(const std::string& operation, const char* loss, DiskImage image);
    [[nodiscard]] static std::string contentOf(const Inode& inode);
    [[nodiscard]] std::string mixedContentOf(const Inode& inode);
    template <class NamesOf, class ContentOf>
    void draw(DiskImage& image, const std::string& path, const Inode& inode, NamesOf namesOf,
              ContentOf contentOf) const;

    std::string m_folder;
    ino_t m_root = 0;
    std::map<ino_t, Inode> m_inodes;
    std::size_t m_acknowledged = 0;
    int m_untilFailure = 1'000'000;
    std::vector<PowerCut> m_cuts;
    std::mt19937 m_random{1}; // NOLINT(bugprone-random-generator-seed): tests repeat
};

} // namespace merlow::board::test
