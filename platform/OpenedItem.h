#pragma once

// One item held by a descriptor, so that the item whose attributes were looked
// at is the very item whose owner, mode or locked flag is changed, whatever a
// user renames in between. A link is held as the link itself and never changed.

#include "platform/Descriptor.h"
#include "platform/FolderScan.h"

#include <optional>

namespace platform {

class OpenedItem {
public:
    // The entry NAME of FOLDER, never through a link.
    static std::optional<OpenedItem> open(const Folder &folder, const char *name, int *error = nullptr);
    // FOLDER itself.
    static std::optional<OpenedItem> of(const Folder &folder, int *error = nullptr);

    // Read afresh from the descriptor; none when that fails.
    std::optional<ItemAttributes> attributes() const;

    // 0 or an errno. As root, anything but a folder with more than one hard link
    // is refused with EMLINK: its other names may lie where no user may reach.
    int setOwner(uid_t owner, gid_t group = static_cast<gid_t>(-1)) const;
    int setMode(mode_t mode) const;
    int clearImmutable() const;

    OpenedItem(OpenedItem &&) = default;

private:
    explicit OpenedItem(int fd) : m_fd(fd) {}
    int refusal() const;

    Descriptor m_fd;
};

}  // namespace platform
