#include "platform/Identity.h"

#include <cstdio>
#include <cstdlib>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

namespace {

using Credentials = ActingAs::Credentials;

uid_t fileSystemUser()
{
    // An invalid id changes nothing and answers the current one.
    return static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1)));
}

Credentials current()
{
    Credentials credentials;
    credentials.user = fileSystemUser();
    credentials.group = static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1)));
    const int count = ::getgroups(0, nullptr);
    credentials.groups.resize(count > 0 ? count : 0);
    if (count > 0 && ::getgroups(count, credentials.groups.data()) != count)
        credentials.groups.clear();
    return credentials;
}

// The process's own identity, read before any thread could act as anyone.
const Credentials g_process = current();

// Only this thread: glibc's setgroups would change every thread of the process.
void apply(const Credentials &credentials)
{
    const bool groupsSet =
        ::syscall(SYS_setgroups, credentials.groups.size(), credentials.groups.data()) == 0;
    ::setfsgid(credentials.group);
    ::setfsuid(credentials.user);
    if (groupsSet && fileSystemUser() == credentials.user &&
        static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) == credentials.group)
        return;
    // Going on with the wrong rights could let root act where she may not.
    std::fputs("Mendwell: unable to change the file-system identity\n", stderr);
    std::abort();
}

}  // namespace

ActingAs::ActingAs(const Account &account)
{
    if (::geteuid() != 0 || account.uid == 0)
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
    if (::geteuid() == 0 && fileSystemUser() != g_process.user)
        apply(g_process);
}

bool hasRootRights()
{
    return ::geteuid() == 0 && fileSystemUser() == 0;
}

std::optional<uid_t> actingUser()
{
    if (::geteuid() != 0)
        return std::nullopt;
    const uid_t user = fileSystemUser();
    return user != 0 ? std::optional<uid_t>(user) : std::nullopt;
}

}  // namespace platform
