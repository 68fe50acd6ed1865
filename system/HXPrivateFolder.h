#pragma once

// A folder of one run alone, for what would otherwise take a fixed name in a
// shared folder such as /tmp: made exclusively under an unpredictable name, mode
// 0700, in a temporary folder nobody else can take it away from, and removed with
// everything in it when the object goes. A fixed name the caller needs lives inside.

#include "platform/Folder.h"

#include <QString>

#include <optional>
#include <sys/types.h>

class HXPrivateFolder {
public:
    // A new folder "PREFIX.<random>" in the process's temporary folder, or in /tmp
    // when that one is not safe (isSafeParent); none, with ERROR (an errno), when
    // neither is or nothing could be made.
    static std::optional<HXPrivateFolder> make(const QString &prefix, int *error = nullptr);
    // The same in PARENT alone.
    static std::optional<HXPrivateFolder> makeIn(const QString &parent, const QString &prefix,
                                                 int *error = nullptr);

    // True when nobody but root and this process's user can rename or replace
    // anything on the way to folder PATH: every folder from "/" down (links
    // resolved) belongs to one of them, and one that others may write to is sticky.
    static bool isSafeParent(const QString &path);

    HXPrivateFolder(HXPrivateFolder &&other) noexcept;
    HXPrivateFolder &operator=(HXPrivateFolder &&other) noexcept;
    HXPrivateFolder(const HXPrivateFolder &) = delete;
    HXPrivateFolder &operator=(const HXPrivateFolder &) = delete;
    ~HXPrivateFolder();

    const QString &path() const { return m_path; }
    // The path of entry NAME inside.
    QString pathOf(const QString &name) const;
    // Lets the members of GROUP read and search it (0750, group GROUP), for what
    // runs or reads as another user from inside; only its owner can still change
    // anything there.
    bool shareWithGroup(gid_t group) const;
    // As root, shareWithGroup for the console user's own group: she starts a
    // program from inside, or an archive is written with her identity. As a plain
    // user (or with nobody at the console) nothing changes and the answer is false.
    bool shareWithConsoleUser() const;

private:
    HXPrivateFolder(platform::Folder parent, QString parentPath, QString name);
    void remove();

    platform::Folder m_parent;  // removal by descriptor, never through the path again
    QString m_name;
    QString m_path;
};
