#pragma once

#include <QString>

#include <ctime>

// A date as the platform prints one: "2026-11-22 19:52:18 +0000" (UTC).
QString HXDateDescription(std::time_t when);
QString HXCurrentDateDescription();
