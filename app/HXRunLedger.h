#pragma once

// What root trashed from the machine's folders during a run (a preference in
// /Library/Preferences), kept where only root can write. The run record lies in
// the user's tree and she can rewrite it, so root puts such an item back only on
// this ledger's word: its original place, its name in her Trash, and the very
// file (device and inode, root's, one name) it moved there.

#include <QString>
#include <QVariantList>

#include <optional>

namespace HXRunLedger {

// The ledger entry for an item root just trashed, with root's own rights, from
// ORIGINALPATH (outside the console user's home) to TRASHEDPATH; none otherwise.
std::optional<QVariantMap> entryFor(const QString &originalPath, const QString &trashedPath);

// Writes the ledger of run IDENTIFIER; false when it could not be written.
bool store(const QString &identifier, const QVariantList &entries);

// Puts the item of run IDENTIFIER that was trashed from PATH back, with root's
// rights, as the ledger says; the place it went back to, or none with PROBLEM.
// Root alone may; the caller acts as the console user meanwhile.
std::optional<QString> restore(const QString &identifier, const QString &path, QString &problem);

}  // namespace HXRunLedger
