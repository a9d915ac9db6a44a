/// Names of mailboxes: one file for each in the folder `names`, locked by its owner.
///
/// A file appears complete and locked, by a hard link of one made under a temporary name, and only its owner
/// ever locks its first byte; so a file whose first byte is free is a dead process's for good. Who removes
/// such a file locks the second byte, to be sure that it is still the one that the name leads to.
#pragma once

#include "descriptor.h"
#include "mnet.h"

#include <string>
#include <string_view>

namespace mnet {

inline constexpr std::size_t maxNameLength = 200;

/// The file name that stands for `name`: "@" and the name, or, for a name with a "/", "%" and the name in
/// base 85, which makes 250 bytes of 200.
std::string fileNameOf(std::string_view name);

/// A name that is held. Gives it back when it goes.
class NameClaim {
public:
    NameClaim() = default;
    NameClaim(NameClaim&&) noexcept = default;
    NameClaim& operator=(NameClaim&& other) noexcept;
    ~NameClaim() { release(); }

    /// Takes `name` for `id` in folder `dirFd`. False with `errno`: `EEXIST` when a live mailbox has it.
    bool take(int dirFd, std::string_view name, mnet_mbox_id_t id);
    void release();

private:
    int m_dirFd = -1;
    std::string m_fileName;
    Descriptor m_file;
};

/// Gives the live mailbox that has the name of this file, or `MNET_MBOX_NONE`. False when there was no
/// descriptor to look with.
bool lookUpName(int dirFd, const std::string& fileName, mnet_mbox_id_t& found);

/// Removes `fileName` if nobody holds it. Used on the way to taking a name, and by the sweep.
void removeStaleName(int dirFd, const std::string& fileName);

} // namespace mnet
