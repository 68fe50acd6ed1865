// A bundle whose Contents/Info.plist is the input, read as HXBundle reads it.

#include "fuzz/FuzzSupport.h"
#include "system/HXBundle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::ensureApplication();
    const QString info = fuzz::writeFile(QStringLiteral("Fuzz.app/Contents/Info.plist"), data, size);
    const HXBundle bundle(info.chopped(QStringLiteral("/Contents/Info.plist").size()));
    bundle.bundleIdentifier();
    bundle.resourcePath();
    bundle.iconPath();
    bundle.executablePath();
    bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString();
    return 0;
}
