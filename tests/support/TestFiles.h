#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <ostream>

// Copies a file or a whole folder (links copied as their targets' contents).
bool copyTree(const QString &from, const QString &to);

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
