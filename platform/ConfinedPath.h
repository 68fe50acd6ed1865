#pragma once

// A path opened for a privileged tool without following any symbolic link that a
// user other than root could have planted: its folder is opened component by
// component, a link is followed only when root owns it and its folder, and no
// ".." is accepted. A child process that inherits the folder's descriptor reaches
// exactly that folder through childPath(), whatever is renamed or replaced on the
// way afterwards.

#include <QString>

#include <optional>

namespace platform {

class ConfinedPath {
public:
    // Opens the folder of PATH (absolute). The last component itself is not
    // followed. None, with the reason, when the path cannot be confined.
    static std::optional<ConfinedPath> open(const QString &path, QString *error = nullptr);
    // Opens PATH itself as a folder; none when it is no real folder.
    static std::optional<ConfinedPath> openFolder(const QString &path, QString *error = nullptr);

    ConfinedPath(ConfinedPath &&other) noexcept;
    ConfinedPath &operator=(ConfinedPath &&other) noexcept;
    ~ConfinedPath();

    int folderDescriptor() const { return m_folder; }
    // The last component (empty for openFolder).
    const QString &name() const { return m_name; }
    // The path a child that inherits folderDescriptor() under the same number uses.
    QString childPath() const;
    // The kind of the last component, without following it.
    bool exists() const;
    bool isRealFolder() const;

private:
    ConfinedPath(int folder, QString name) : m_folder(folder), m_name(std::move(name)) {}
    int m_folder = -1;
    QString m_name;
};

}  // namespace platform
