#include "app/HXRunRecordText.h"

#include "system/HXFormat.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace HXRunRecordText {

namespace {

QString localTime(const QVariant &date)
{
    return date.toDateTime().toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}

}  // namespace

QString historyLine(const QVariantMap &record)
{
    return HXFormat(u"%@  %@  %@  %i trashed  %@", record.value("identifier").toString(),
                    localTime(record.value("start")), record.value("mode").toString(),
                    static_cast<int>(record.value("trashed").toList().size()),
                    record.value("verdict").toString());
}

QStringList reportLines(const QVariantMap &record)
{
    QStringList lines{
        HXFormat(u"Repair %@ (%@)", record.value("identifier").toString(), record.value("mode").toString()),
        HXFormat(u"Started %@, ended %@", localTime(record.value("start")), localTime(record.value("end"))),
        HXFormat(u"Verdict: %@", record.value("verdict").toString()),
        QStringLiteral("Steps:"),
    };
    for (const QVariant &step : record.value("steps").toList())
        lines.append(HXFormat(u"  %@  %.2f s", step.toMap().value("name").toString(),
                              step.toMap().value("seconds").toDouble()));
    const QVariantList trashed = record.value("trashed").toList();
    lines.append(HXFormat(u"Moved to the Trash (%i):", static_cast<int>(trashed.size())));
    for (const QVariant &item : trashed) {
        const QVariantMap map = item.toMap();
        lines.append(HXFormat(u"  %@%@", map.value("path").toString(),
                              map.contains("restoredTo") ? QStringLiteral(" (restored)") : QString()));
    }
    return lines;
}

QByteArray json(const QVariant &value)
{
    const QJsonDocument document = value.typeId() == QMetaType::QVariantList
                                       ? QJsonDocument(QJsonArray::fromVariantList(value.toList()))
                                       : QJsonDocument(QJsonObject::fromVariantMap(value.toMap()));
    return document.toJson(QJsonDocument::Indented);
}

}  // namespace HXRunRecordText
