#pragma once
// How mendwellctl shows a run record: one line of its history, the lines of its
// report, and JSON. The record is whatever the file held, so every field may be
// missing or of another type.
#include <QByteArray>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

namespace HXRunRecordText {
// "IDENTIFIER  START  MODE  N trashed  VERDICT", times local.
QString historyLine(const QVariantMap &record);
// The report: the run, its times, verdict, steps and what went to the Trash.
QStringList reportLines(const QVariantMap &record);
// A record (a map) or a list of them as indented JSON.
QByteArray json(const QVariant &value);
}  // namespace HXRunRecordText
