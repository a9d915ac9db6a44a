#include "scryctl.h"

#include "levelList.h"
#include "recordFile.h"
#include "runDir.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

namespace merlow::scryctl {

namespace {

using trace::OpenRecordFile;

constexpr std::uint32_t objectsBit = 1u << SCRY_OBJ_BIT;
constexpr int nameWidth = 20;

std::string folder()
{
    return base::runDirPath() + "/" + trace::recordFolder;
}

/// The files of all live processes; nothing when that can't be found out, which is told.
std::optional<std::vector<OpenRecordFile>> liveProcesses(std::ostream& err)
{
    std::vector<std::string> problems;
    auto files = trace::openRecordFiles(problems);
    if (!files) {
        err << "scryctl: can't read " << folder() << ": " << std::strerror(errno) << "\n";
    }
    for (const std::string& problem : problems) {
        err << "scryctl: " << folder() << "/" << problem << "\n";
    }
    return files;
}

nlohmann::ordered_json levelsOf(std::uint32_t mask)
{
    auto levels = nlohmann::ordered_json::array();
    for (unsigned int level = 0; level < 32; ++level) {
        if ((mask >> level & 1u) != 0) {
            levels.push_back(level);
        }
    }
    return levels;
}

void printJson(const OpenRecordFile& file, std::ostream& out)
{
    nlohmann::ordered_json line;
    line["process"] = file.processName();
    line["pid"] = file.pid();
    line["levels"] = levelsOf(file.processMask() & ~objectsBit);
    line["objectsOn"] = (file.processMask() & objectsBit) != 0;
    line["newObjectLevels"] = levelsOf(file.newObjectMask());
    line["objects"] = nlohmann::ordered_json::array();
    for (const auto& object : file.objects()) {
        line["objects"].push_back({{"name", object.name}, {"levels", levelsOf(object.mask)}});
    }
    out << line.dump() << "\n";
}

void printText(const OpenRecordFile& file, std::ostream& out)
{
    const auto row = [&out](const std::string& name, std::uint32_t mask) {
        out << "  " << std::left << std::setw(nameWidth) << name << " " << trace::formatLevels(mask) << "\n";
    };
    const bool objectsOn = (file.processMask() & objectsBit) != 0;
    out << file.processName() << "." << file.pid() << (objectsOn ? "" : "  (objects off)") << "\n";
    row("process", file.processMask() & ~objectsBit);
    for (const auto& object : file.objects()) {
        row("object " + object.name, object.mask);
    }
    row("new objects", file.newObjectMask());
}

bool isMeant(const OpenRecordFile& file, const std::string& process)
{
    const std::string pid = std::to_string(file.pid());
    return process == pid || process == file.processName() || process == file.processName() + "." + pid;
}

/// The one process that is meant; nothing, and a reason to `err`, when it isn't one.
OpenRecordFile* find(std::vector<OpenRecordFile>& files, const std::string& process, std::ostream& err)
{
    std::vector<OpenRecordFile*> found;
    for (OpenRecordFile& file : files) {
        if (isMeant(file, process)) {
            found.push_back(&file);
        }
    }
    if (found.size() == 1) {
        return found.front();
    }
    if (found.empty()) {
        err << "scryctl: no process " << process << " in " << folder();
    } else {
        err << "scryctl: " << process << " is the name of " << found.size() << " processes, name one";
    }
    std::string separator = ": there is ";
    for (const OpenRecordFile& file : files) {
        if (found.empty() || isMeant(file, process)) {
            err << separator << file.processName() << "." << file.pid();
            separator = ", ";
        }
    }
    err << "\n";
    return nullptr;
}

} // namespace

ExitStatus list(bool json, std::ostream& out, std::ostream& err)
{
    const auto files = liveProcesses(err);
    if (!files) {
        return ExitStatus::failed;
    }
    if (files->empty() && !json) {
        err << "scryctl: no traced process in " << folder() << "\n";
    }
    for (const OpenRecordFile& file : *files) {
        if (json) {
            printJson(file, out);
        } else {
            printText(file, out);
        }
    }
    return ExitStatus::done;
}

ExitStatus set(const Changes& changes, std::ostream& err)
{
    auto files = liveProcesses(err);
    OpenRecordFile* const file = files ? find(*files, changes.process, err) : nullptr;
    if (file == nullptr) {
        return ExitStatus::failed;
    }
    if (!changes.object.empty()) {
        if (!file->setObjectMask(changes.object, changes.objectLevels.value_or(0))) {
            err << "scryctl: " << file->processName() << "." << file->pid() << " has no object "
                << changes.object << "\n";
            return ExitStatus::failed;
        }
    } else if (changes.objectLevels) {
        file->setAllObjectMasks(*changes.objectLevels);
    }
    const std::uint32_t before = file->processMask();
    const std::uint32_t levels = changes.processLevels.value_or(before);
    const bool objectsOn = changes.objectsOn.value_or(((before | levels) & objectsBit) != 0);
    file->setProcessMask(objectsOn ? levels | objectsBit : levels & ~objectsBit);
    return ExitStatus::done;
}

} // namespace merlow::scryctl
