#pragma once

// Property lists as macOS writes them (XML or binary), as a tree of QVariants:
// QVariantMap (dictionary), QVariantList (array), QString, qint64 / quint64
// (integers; quint64 only above the signed range), double, bool, QDateTime (UTC),
// QByteArray (data).
//
// Root reads lists from trees their users can change, so every list read, whoever
// wrote it, is held to the bounds below; a list beyond them, malformed, or not a
// regular file reads as damaged: like a missing one, with one line in the log.

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <optional>
#include <sys/types.h>

namespace PropertyList {

// Bytes of a list. Far above any list of ours or the system's, and it keeps what
// parsing may cost in memory to a few hundred MiB at most.
inline constexpr qsizetype kMaxSize = 16 * 1024 * 1024;
// Values inside one another, the outermost one being level 1. Our own lists nest
// fewer than 10; libplist recurses once a level when it reads a binary list and
// when it frees any list.
inline constexpr int kMaxNesting = 128;
// Values, keys included. A binary list stores a value once and may refer to it
// many times; libplist copies it for every reference, so each counts each time.
inline constexpr qsizetype kMaxValues = 1 << 18;

// Parses XML or binary property-list data; an invalid QVariant when it is neither
// or lies beyond the bounds, with the reason in DAMAGE when given.
QVariant fromData(const QByteArray &data, QString *damage = nullptr);

// Reads a property-list file; a missing or unreadable file reads as an invalid
// QVariant, and so does a damaged one (logged). With root's own rights the path
// is walked as platform::Item walks it, so root follows no link a user could have
// planted, and the file itself is never a link; a process acting as itself (or
// root acting as the user) opens it as the system does, links followed. Either
// way it is opened without blocking, so a FIFO or a device is refused rather than
// waited for.
QVariant readFile(const QString &path);

// Reads a file whose top level is a dictionary; anything else reads as empty.
QVariantMap readDictionary(const QString &path);

// The same, named for the call sites that read in a user's tree as root.
QVariantMap readDictionaryInUsersTree(const QString &path);

// Serialises a value tree as XML; an empty array when a value has no plist form
// or the XML would be larger than kMaxSize, so that no writer leaves a list that
// cannot be read back.
QByteArray toXml(const QVariant &value);

// Writes the value tree as XML through a temporary file in the same folder and a
// rename, so readers see either the old file or the whole new one.
bool writeXmlFile(const QString &path, const QVariant &value);

// The same for a file in a tree its user can change while root writes: the
// folder is reached (and made, for OWNER, when missing) without following a link
// the user could have planted, the new file is made there and renamed over the
// old one, and as root it is then given to OWNER.
bool writeXmlFileInUsersTree(const QString &path, const QVariant &value, std::optional<uid_t> owner);

}  // namespace PropertyList
