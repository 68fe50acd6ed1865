#include "platform/Accounts.h"

#include <QFile>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <utility>

namespace platform {

namespace {

// The password-database entry of UID, handed to READ while its storage lives.
template <typename Read>
auto withEntryOf(uid_t uid, Read read) -> std::optional<decltype(read(std::declval<const passwd &>()))>
{
    std::vector<char> buffer(16384);
    struct passwd entry {};
    struct passwd *found = nullptr;
    if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return std::nullopt;
    return read(*found);
}

}  // namespace

std::optional<Account> accountNamed(const QString &name)
{
    if (name.isEmpty())
        return std::nullopt;
    const QByteArray encoded = QFile::encodeName(name);
    std::vector<char> buffer(16384);
    struct passwd entry {};
    struct passwd *found = nullptr;
    if (::getpwnam_r(encoded.constData(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr)
        return std::nullopt;
    Account account{name, found->pw_uid, found->pw_gid, {}};
    int count = 64;
    account.groups.resize(count);
    while (::getgrouplist(encoded.constData(), found->pw_gid, account.groups.data(), &count) < 0)
        account.groups.resize(count);
    account.groups.resize(count);
    return account;
}

std::optional<Account> accountOf(uid_t uid)
{
    const std::optional<QString> name = accountNameOf(uid);
    return name ? accountNamed(*name) : std::nullopt;
}

std::optional<QString> accountNameOf(uid_t uid)
{
    return withEntryOf(uid, [](const passwd &entry) { return QFile::decodeName(entry.pw_name); });
}

gid_t primaryGroupOf(uid_t uid)
{
    return withEntryOf(uid, [](const passwd &entry) { return entry.pw_gid; })
        .value_or(static_cast<gid_t>(-1));
}

Account processAccount()
{
    Account account;
    account.uid = ::geteuid();
    account.gid = ::getegid();
    account.name = accountNameOf(account.uid).value_or(QString());
    const int count = ::getgroups(0, nullptr);
    account.groups.resize(count > 0 ? count : 0);
    if (count > 0 && ::getgroups(count, account.groups.data()) != count)
        account.groups.clear();
    account.groups.push_back(account.gid);
    return account;
}

}  // namespace platform
