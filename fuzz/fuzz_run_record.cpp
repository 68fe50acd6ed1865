// A run record file as mendwellctl reads it (through the reader HXRunRecord::load
// uses) and what its history, report and --json make of the fields.

#include "fuzz/FuzzSupport.h"
#include "system/HXFormat.h"
#include "system/PropertyList.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::ensureApplication();
    const QVariantMap record =
        PropertyList::readDictionaryInUsersTree(fuzz::writeFile(QStringLiteral("run.plist"), data, size));
    QJsonDocument(QJsonObject::fromVariantMap(record)).toJson();
    const auto local = [&](const char *key) {
        return record.value(key).toDateTime().toLocalTime().toString();
    };
    QString text =
        HXFormat(u"%@  %@  %@  %i trashed  %@", record.value("identifier").toString(), local("start"),
                 record.value("mode").toString(), static_cast<int>(record.value("trashed").toList().size()),
                 record.value("verdict").toString());
    text += local("end");
    for (const QVariant &step : record.value("steps").toList())
        text += HXFormat(u"  %@  %.2f s", step.toMap().value("name").toString(),
                         step.toMap().value("seconds").toDouble());
    for (const QVariant &item : record.value("trashed").toList())
        text += HXFormat(u"  %@%@", item.toMap().value("path").toString(),
                         item.toMap().contains("restoredTo") ? QStringLiteral(" (restored)") : QString());
    return 0;
}
