#pragma once

#include <QByteArray>
#include <QString>

#include <ctime>

// A date as the platform prints one: "2026-11-22 19:52:18 +0000" (UTC).
QString HXDateDescription(std::time_t when);
// The current date's description; the reference stays valid on this thread
// until the next call.
const QString &HXCurrentDateDescription();

// The same, encoded as UTF-8.
const QByteArray &HXCurrentDateDescriptionUtf8();
