#pragma once

// Root in the console user's home does her part with her identity: what it does
// there, she could have done herself, and her own links lead where they lead
// her. The named root tasks (the permission correction, the machine's Adobe
// folders and preferences, ending processes) keep root's rights and the walk's
// caution instead.

#include "platform/Accounts.h"
#include "platform/Identity.h"

#include <QString>

#include <optional>

namespace HXUsersTree {

// The console user, when this process works with root's rights and PATH lies in
// her home (by its spelling: a path that climbs out with ".." is still checked
// with her rights, so nothing escapes that way); none otherwise.
std::optional<platform::Account> ownerFor(const QString &path);

// The console user's account; none as a plain user or with nobody at the console.
std::optional<platform::Account> consoleAccount();

}  // namespace HXUsersTree

// For its lifetime this thread acts as the console user when root works on a
// path in her home (either path, for a move or a copy); otherwise nothing changes,
// also inside an HXWithRootRights scope.
class HXActingForUser {
public:
    explicit HXActingForUser(const QString &path, const QString &otherPath = QString());
    explicit HXActingForUser(const std::optional<platform::Account> &account);
    HXActingForUser(const HXActingForUser &) = delete;
    HXActingForUser &operator=(const HXActingForUser &) = delete;

    bool isActing() const { return m_acting.has_value() && m_acting->isActing(); }

private:
    std::optional<platform::ActingAs> m_acting;
};

// For its lifetime this thread works with root's own rights again (the
// administrator's fallback, for what her rights could not do), and nothing
// called meanwhile acts as the user.
class HXWithRootRights {
public:
    HXWithRootRights();
    ~HXWithRootRights();
    HXWithRootRights(const HXWithRootRights &) = delete;
    HXWithRootRights &operator=(const HXWithRootRights &) = delete;

private:
    platform::WithRootRights m_rights;
    bool m_previous;
};
