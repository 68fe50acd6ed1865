#pragma once

// Taking a repair back: every item the run moved to the Trash goes back where it
// was, with its Trash record removed. An item whose place is taken again is put
// beside it under a free name ("name 2.ext"), so nothing is overwritten; an item
// no longer in the Trash (an emptied Trash) is said to be lost. The restore is
// recorded in the run's record, and an item is never restored twice.
//
// The record lies in the user's tree, so she can rewrite it: nothing in it is
// trusted. Root restores with her identity, so a restore can do nothing she
// could not have done herself; an item is taken only from an entry of her Trash
// (its record the matching entry of the Trash's info folder) and put back only
// below a folder a repair trashes from.

#include <QString>
#include <QVariantMap>

#include <vector>

namespace HXRunRestore {

struct Item {
    QString path;        // where it was before the repair
    QString restoredTo;  // where it is now; empty when it could not be restored
    QString problem;     // why not, or why it lies beside its old place

    // {path, restoredTo, problem}, as the record's restores list it.
    QVariantMap toVariant() const;
};

struct Outcome {
    std::vector<Item> items;
    // The media cache's files, too many to list one by one.
    int mediaCacheRestored = 0;
    int mediaCacheFailed = 0;
    int restored() const;
    int failed() const;
};

// Restores what RECORD's run trashed and not yet restored, and records that in
// RECORD (the caller stores it).
Outcome restore(QVariantMap &record);

// Items of RECORD still waiting to be restored.
int pendingItems(const QVariantMap &record);

}  // namespace HXRunRestore
