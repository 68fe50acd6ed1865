#pragma once

// User accounts: who owns an item, and what a given user may do with it.

#include <QString>

#include <optional>
#include <sys/types.h>
#include <vector>

namespace platform {

struct Account {
    QString name;
    uid_t uid = 0;
    gid_t gid = 0;
    // Every group the account is in, its own included.
    std::vector<gid_t> groups;
};

std::optional<Account> accountNamed(const QString &name);
std::optional<Account> accountOf(uid_t uid);
// The account name of UID; none when no account has it.
std::optional<QString> accountNameOf(uid_t uid);
// The primary group of UID, for handing an item to that user whole; -1 (keep
// the group) when no account has it.
gid_t primaryGroupOf(uid_t uid);
// The effective user and groups of this process.
Account processAccount();

}  // namespace platform
