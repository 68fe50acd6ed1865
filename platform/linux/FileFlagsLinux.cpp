#include "platform/FileFlags.h"

#include "platform/Folder.h"

namespace platform {

std::optional<bool> isImmutable(const QString &path)
{
    const std::optional<Item> item = Item::open(path);
    return item ? item->folder.isImmutable(item->name) : std::nullopt;
}

int setImmutable(const QString &path, bool immutable)
{
    int error = 0;
    const std::optional<Item> item = Item::open(path, &error);
    return item ? item->folder.setImmutable(item->name, immutable) : error;
}

}  // namespace platform
