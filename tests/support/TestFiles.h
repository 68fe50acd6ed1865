#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <ostream>
#include <sys/stat.h>
#include <sys/types.h>

// Copies a file or a whole folder (links copied as their targets' contents).
bool copyTree(const QString &from, const QString &to);

// The sample tree (scripts/make-sample.sh) in the root whose host path is ROOT.
bool makeSample(const QString &root);
// The four items of the sample whose owner or mode is wrong, sorted.
extern const QStringList kSampleWrong;

// A user who keeps folder PATH elsewhere: it moves to ELSEWHERE (its missing
// parents made for OWNER) and a link of OWNER's to it takes its place. Paths as a
// sandbox names them; HOSTPATH gives each one's place on the host.
bool moveBehindUsersLink(const std::function<QString(const QString &)> &hostPath, const QString &path,
                         const QString &elsewhere, uid_t owner, gid_t group);

// Plain file-system steps of the tests' set-ups, by QString path.
namespace disk {
// PATH's contents; empty when it cannot be read.
QByteArray read(const QString &path);
// Writes CONTENTS to PATH (its missing folders made), then gives it MODE (-1: as made).
bool write(const QString &path, const QByteArray &contents = {}, int mode = -1);
// lstat of PATH; all zero when there is nothing there.
struct stat info(const QString &path);
bool chmod(const QString &path, mode_t mode);
// lchown: a link itself, never what it names.
bool chown(const QString &path, uid_t owner, gid_t group);
// Makes PATH with its missing parents, each folder made given to OWNER.
bool makePath(const QString &path, uid_t owner, gid_t group);
// The file system's flags of PATH (a link itself, never what it names); -1 when
// they cannot be read.
int flags(const QString &path);
// Sets or clears the locked (immutable) flag of PATH.
bool setLocked(const QString &path, bool locked);
// Everything about PATH and what lies below it that a change could touch: names,
// kinds, owners, modes, link counts, flags, contents. Links are not followed.
QString fingerprint(const QString &path, const QString &relative = QStringLiteral("."));
}  // namespace disk

// Readable failure messages for Qt strings in GoogleTest expectations.
inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QByteArray &bytes, std::ostream *out)
{
    *out << '"' << bytes.toStdString() << '"';
}
inline void PrintTo(const QStringList &list, std::ostream *out)
{
    *out << "\n  " << list.join(QStringLiteral("\n  ")).toStdString() << '\n';
}
