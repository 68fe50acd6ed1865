#include "platform/Identity.h"

#include <cstdio>
#include <cstdlib>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

namespace {

using Credentials = ActingAs::Credentials;

// An invalid id changes nothing and answers the current one.
uid_t askFileSystemUser()
{
    return static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1)));
}

gid_t askFileSystemGroup()
{
    return static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1)));
}

Credentials ask()
{
    Credentials credentials;
    credentials.user = askFileSystemUser();
    credentials.group = askFileSystemGroup();
    const int count = ::getgroups(0, nullptr);
    credentials.groups.resize(count > 0 ? count : 0);
    if (count > 0 && ::getgroups(count, credentials.groups.data()) != count)
        credentials.groups.clear();
    return credentials;
}

// The process's own identity, read before any thread could act as anyone.
const Credentials g_process = ask();

// This thread's identity as last set here; asked of the kernel once, since a
// thread inherits whatever its maker had at the time. Switching runs once per
// file a repair touches, and every system call counts there.
struct ThreadIdentity {
    bool known = false;
    Credentials credentials;
};
thread_local ThreadIdentity t_identity;

const Credentials &current()
{
    if (!t_identity.known) {
        t_identity.credentials = ask();
        t_identity.known = true;
    }
    return t_identity.credentials;
}

// Only this thread: glibc's setgroups would change every thread of the process.
// Taking a user's identity is checked; going back to root's is not, since a
// failure there leaves fewer rights, never more.
void apply(const Credentials &credentials)
{
    const bool groupsSet =
        ::syscall(SYS_setgroups, credentials.groups.size(), credentials.groups.data()) == 0;
    ::setfsgid(credentials.group);
    ::setfsuid(credentials.user);
    if (credentials.user == 0 ||
        (groupsSet && askFileSystemUser() == credentials.user && askFileSystemGroup() == credentials.group)) {
        t_identity.credentials = credentials;
        t_identity.known = true;
        return;
    }
    // Going on with the wrong rights could let root act where she may not.
    std::fputs("Mendwell: unable to change the file-system identity\n", stderr);
    std::abort();
}

}  // namespace

ActingAs::ActingAs(const Account &account)
{
    if (account.uid == 0 || ::geteuid() != 0)
        return;
    m_saved = current();
    apply(Credentials{account.uid, account.gid, account.groups});
    m_acting = true;
}

ActingAs::~ActingAs()
{
    if (m_acting)
        apply(m_saved);
}

WithRootRights::WithRootRights()
{
    if (!actingUser())
        return;
    m_saved = current();
    apply(g_process);
    m_switched = true;
}

WithRootRights::~WithRootRights()
{
    if (m_switched)
        apply(m_saved);
}

void useProcessIdentity()
{
    t_identity.known = false;
    if (::geteuid() == 0 && current().user != g_process.user)
        apply(g_process);
}

bool hasRootRights()
{
    // The file-system user follows the effective one unless set apart, which
    // only root's own scopes here do.
    return current().user == 0;
}

std::optional<uid_t> actingUser()
{
    const uid_t user = current().user;
    if (user == 0 || ::geteuid() != 0)
        return std::nullopt;
    return user;
}

}  // namespace platform
