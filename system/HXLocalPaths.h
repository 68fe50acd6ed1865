#pragma once

// Standard folders of the logged-in user and of the machine, also when running as
// root, and the rule that protects folders from being deleted, moved or emptied.

#include <QString>

#include <optional>

enum class HXDirectory {
    Applications,
    AdminApplications,
    Documents,
    Library,
    Caches,
    ApplicationSupport,
    Desktop,
    Movies,
    Documentation,
};

class HXLocalPaths {
public:
    // First entry of the search-path list for KIND in the user domain (userDomain)
    // or the local domain; empty when the list is empty. As root, user-domain
    // folders are rebased into the console user's home.
    static QString pathForDirectory(HXDirectory kind, bool userDomain);

    static QString applicationDirectory(bool user);
    static QString adminApplicationDirectory(bool user);
    static QString documentDirectory(bool user);
    static QString libraryDirectory(bool user);
    static QString prefsDirectory(bool user);
    static QString cacheDirectory(bool user);
    static QString appSupportDirectory(bool user);
    static std::optional<QString> darwinCacheDirectory();
    static QString movieDirectory();
    static QString desktopDirectory();
    static QString userDirectory();
    // The process's own home, also as root: for the program's own settings and
    // caches, which are never written into another user's tree.
    static QString ownHomeDirectory();
    static QString username();
    static QString systemLibraryDirectory();
    static QString trashDirectory();
    static QString logDirectory(bool user);
    static QString localDocumentationDirectory();
    static QString tempDirectory();
    static QString tempFile();
    static QString uuid();
    static QString randomString(int length);

    static bool isPathSystemDirectory(const QString &path, bool exactMatch = false);
    // The exact-match rule under any spelling of a folder: PATH, its cleaned form
    // ("//", "." and a trailing "/" removed), or the folder it opens (same device
    // and inode) is one of the protected folders. What privileged operations refuse.
    static bool isProtectedFolder(const QString &path);
    static bool isPathOnTimeMachineVolume(const QString &path);
    static std::optional<QString> currentConsoleUser();

    // The search-path entry for KIND under HOME (user domain, HOME non-empty) or
    // for the machine (HOME empty); empty when that domain has no such folder.
    static QString searchPathEntry(HXDirectory kind, const QString &home);

    // The root rule: ENTRY, a user-domain folder under root's home ROOTHOME, moved
    // into CONSOLEHOME. Empty when there is no console home.
    static QString rebaseIntoConsoleHome(const QString &entry, const QString &rootHome,
                                         const QString &consoleHome);
};
