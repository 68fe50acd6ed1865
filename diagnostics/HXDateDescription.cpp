#include "diagnostics/HXDateDescription.h"

namespace {

// The log asks for the date once per line; its text only changes once a second.
struct CachedDescription {
    std::time_t second = -1;
    QString text;
    QByteArray utf8;

    const CachedDescription &now()
    {
        const std::time_t current = std::time(nullptr);
        if (current != second) {
            second = current;
            text = HXDateDescription(current);
            utf8 = text.toUtf8();
        }
        return *this;
    }
};

thread_local CachedDescription cache;

}  // namespace

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
    return cache.now().text;
}

const QByteArray &HXCurrentDateDescriptionUtf8()
{
    return cache.now().utf8;
}
