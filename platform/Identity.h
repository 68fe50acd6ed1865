#pragma once

// Whose rights a thread uses in the file system.
//
// Root doing a user's part in her tree does it with her identity, so the kernel
// checks every step as it would check hers, and her links lead where they lead
// her. Only this thread's file-system user, group and groups change (Linux:
// setfsuid, setfsgid and the thread's own setgroups), so other threads (the log
// writer) keep theirs. A thread or child started meanwhile inherits her identity
// (a child her groups): start none inside a scope, and let a long-lived worker
// that may be started lazily call useProcessIdentity first.

#include "platform/Accounts.h"

#include <optional>
#include <sys/types.h>
#include <vector>

namespace platform {

// For its lifetime this thread acts with ACCOUNT's rights, when the process runs
// as root and ACCOUNT is not root; otherwise it changes nothing. Scopes nest.
class ActingAs {
public:
    explicit ActingAs(const Account &account);
    ~ActingAs();
    ActingAs(const ActingAs &) = delete;
    ActingAs &operator=(const ActingAs &) = delete;

    // Whether this scope changed the identity (and so may have failed to).
    bool isActing() const { return m_acting; }

    // A thread's file-system identity.
    struct Credentials {
        uid_t user = 0;
        gid_t group = 0;
        std::vector<gid_t> groups;
    };

private:
    bool m_acting = false;
    Credentials m_saved;
};

// For its lifetime this thread has root's rights again, inside an ActingAs
// scope: for the one step a named root task needs on an item already opened.
class WithRootRights {
public:
    WithRootRights();
    ~WithRootRights();
    WithRootRights(const WithRootRights &) = delete;
    WithRootRights &operator=(const WithRootRights &) = delete;

private:
    bool m_switched = false;
    ActingAs::Credentials m_saved;
};

// This thread's identity back to the process's own, whatever it inherited.
void useProcessIdentity();

// Whether this thread works in the file system with root's rights: the process
// is root and acts for nobody else. Then paths are walked with root's caution;
// otherwise the kernel checks every step and links are followed as it follows them.
bool hasRootRights();

// The user root is acting as on this thread; none when it acts as itself (or
// the process is not root).
std::optional<uid_t> actingUser();

}  // namespace platform
