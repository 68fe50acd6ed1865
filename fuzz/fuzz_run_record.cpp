// A run record file as mendwellctl reads it (through the reader HXRunRecord::load
// uses) and what its history, report and --json make of it.

#include "app/HXRunRecordText.h"
#include "fuzz/FuzzSupport.h"
#include "system/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::ensureApplication();
    const QVariantMap record =
        PropertyList::readDictionaryInUsersTree(fuzz::writeFile(QStringLiteral("run.plist"), data, size));
    HXRunRecordText::json(record);
    HXRunRecordText::json(QVariantList{record});
    HXRunRecordText::historyLine(record);
    HXRunRecordText::reportLines(record);
    return 0;
}
