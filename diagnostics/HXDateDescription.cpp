#include "diagnostics/HXDateDescription.h"

QString HXDateDescription(std::time_t when)
{
    std::tm parts{};
    gmtime_r(&when, &parts);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &parts);
    return QString::fromLatin1(text);
}

const QString &HXCurrentDateDescription()
{
    // The log asks for this once per line; the text only changes once a second.
    thread_local std::time_t cachedSecond = -1;
    thread_local QString cachedText;
    const std::time_t now = std::time(nullptr);
    if (now != cachedSecond) {
        cachedSecond = now;
        cachedText = HXDateDescription(now);
    }
    return cachedText;
}

const QByteArray &HXCurrentDateDescriptionUtf8()
{
    thread_local std::time_t cachedSecond = -1;
    thread_local QByteArray cachedBytes;
    const std::time_t now = std::time(nullptr);
    if (now != cachedSecond) {
        cachedSecond = now;
        cachedBytes = HXDateDescription(now).toUtf8();
    }
    return cachedBytes;
}
