#include "system/HXUsersTree.h"

#include "platform/Folder.h"
#include "platform/Platform.h"

#include <chrono>
#include <mutex>

namespace {

// Set while an HXWithRootRights scope lasts on this thread.
thread_local bool t_rootRightsLent = false;

struct ConsoleAccount {
    QString name;
    std::optional<platform::Account> account;
    QString home;
};

// The console user's account and home. A repair asks for them once per file it
// touches, so who sits at the console is asked at most once a second, and the
// account again only when someone else sits there.
// Never freed: the log's writer may still ask while the process's statics are
// destroyed at exit.
ConsoleAccount consoleAccountAndHome()
{
    static auto *mutex = new std::mutex;
    static auto *cachedAccount = new ConsoleAccount;
    static std::chrono::steady_clock::time_point asked;
    ConsoleAccount &cached = *cachedAccount;
    const std::lock_guard lock(*mutex);
    const auto now = std::chrono::steady_clock::now();
    if (asked != std::chrono::steady_clock::time_point() && now - asked < std::chrono::seconds(1))
        return cached;
    asked = now;
    const QString name = platform::consoleUser().value_or(QString());
    if (name != cached.name || (!name.isEmpty() && !cached.account)) {
        cached.name = name;
        cached.account = platform::accountNamed(name);
        cached.home = platform::homeDirectoryOfUser(name).value_or(QString());
    }
    return cached;
}

bool liesIn(const QString &path, const QString &folder)
{
    if (path.isEmpty() || folder.isEmpty() || folder == QLatin1String("/"))
        return false;
    const QString absolute = platform::absoluteItemPath(path);
    return absolute == folder || absolute.startsWith(folder + QLatin1Char('/'));
}

}  // namespace

namespace HXUsersTree {

std::optional<platform::Account> consoleAccount()
{
    if (!platform::hasRootRights())
        return std::nullopt;
    const ConsoleAccount console = consoleAccountAndHome();
    if (!console.account || console.account->uid == 0)
        return std::nullopt;
    return console.account;
}

std::optional<platform::Account> ownerFor(const QString &path)
{
    if (!platform::hasRootRights())
        return std::nullopt;
    const ConsoleAccount console = consoleAccountAndHome();
    if (!console.account || console.account->uid == 0 || !liesIn(path, console.home))
        return std::nullopt;
    return console.account;
}

}  // namespace HXUsersTree

HXActingForUser::HXActingForUser(const QString &path, const QString &otherPath)
{
    if (t_rootRightsLent)
        return;
    std::optional<platform::Account> owner = HXUsersTree::ownerFor(path);
    if (!owner && !otherPath.isEmpty())
        owner = HXUsersTree::ownerFor(otherPath);
    if (owner)
        m_acting.emplace(*owner);
}

HXActingForUser::HXActingForUser(const std::optional<platform::Account> &account)
{
    if (account && !t_rootRightsLent)
        m_acting.emplace(*account);
}

HXWithRootRights::HXWithRootRights() : m_previous(t_rootRightsLent)
{
    t_rootRightsLent = true;
}

HXWithRootRights::~HXWithRootRights()
{
    t_rootRightsLent = m_previous;
}
