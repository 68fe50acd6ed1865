#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <ostream>
#include <sys/types.h>

// Copies a file or a whole folder (links copied as their targets' contents).
bool copyTree(const QString &from, const QString &to);

// A user who keeps folder PATH elsewhere: it moves to ELSEWHERE (its missing
// parents made for OWNER) and a link of OWNER's to it takes its place. Paths as a
// sandbox names them; HOSTPATH gives each one's place on the host.
bool moveBehindUsersLink(const std::function<QString(const QString &)> &hostPath, const QString &path,
                         const QString &elsewhere, uid_t owner, gid_t group);

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
