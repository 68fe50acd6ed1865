#include "app/HXOSDetect.h"

#include "platform/Platform.h"
#include "system/HXFormat.h"

namespace {

HXSystemVersion runningVersion()
{
    HXSystemVersion version;
    HXOSDetect::getSystemVersion(&version.major, &version.minor, &version.bugFix);
    return version;
}

bool runsAtLeast(long major, long minor, long bugFix)
{
    return HXOSDetect::isAtLeast(runningVersion(), {major, minor, bugFix});
}

}  // namespace

bool HXOSDetect::isLeopardOrHigher()
{
    return runsAtLeast(10, 5, 0);
}
bool HXOSDetect::isSnowLeopardOrHigher()
{
    return runsAtLeast(10, 6, 0);
}
bool HXOSDetect::isLionOrHigher()
{
    return runsAtLeast(10, 7, 0);
}
bool HXOSDetect::isMountainLionOrHigher()
{
    return runsAtLeast(10, 8, 0);
}
bool HXOSDetect::isMavericksOrHigher()
{
    return runsAtLeast(10, 9, 0);
}
bool HXOSDetect::isYosemiteOrHigher()
{
    return runsAtLeast(10, 10, 0);
}
bool HXOSDetect::isElCapitanOrHigher()
{
    return runsAtLeast(10, 11, 0);
}

bool HXOSDetect::isOSVersionHigherThan(long major, long minor, long bugFix)
{
    return runsAtLeast(major, minor, bugFix);
}

QString HXOSDetect::osxVersion()
{
    const HXSystemVersion version = runningVersion();
    return HXFormat(u"%li.%li.%li", version.major, version.minor, version.bugFix);
}

void HXOSDetect::getSystemVersion(long *major, long *minor, long *bugFix)
{
    // The system's own version is never in the old packed form. When it cannot be
    // had, the oldest system this program runs on is assumed.
    platform::OSVersion version = platform::osVersion();
    if (version.error != 0) {
        platform::systemLog(HXFormat(u"Unable to obtain system version: %ld", version.error));
        version = {10, 5, 0, 0};
    }
    if (major != nullptr)
        *major = version.major;
    if (minor != nullptr)
        *minor = version.minor;
    if (bugFix != nullptr)
        *bugFix = version.patch;
}

HXSystemVersion HXOSDetect::decodeSystemVersionBCD(unsigned value)
{
    return {static_cast<long>(10 * ((value >> 12) & 0xF) + ((value >> 8) & 0xF)),
            static_cast<long>((value >> 4) & 0xF), static_cast<long>(value & 0xF)};
}

bool HXOSDetect::isAtLeast(const HXSystemVersion &running, const HXSystemVersion &wanted)
{
    if (running.major != wanted.major)
        return running.major > wanted.major;
    if (running.minor != wanted.minor)
        return running.minor > wanted.minor;
    return running.bugFix >= wanted.bugFix;
}
