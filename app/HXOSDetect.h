#pragma once

// Which version of the system runs, for the parts that behave differently on
// older ones. On Linux the version is the kernel's release (major.minor.patch).

#include <QString>

struct HXSystemVersion {
    long major = 0;
    long minor = 0;
    long bugFix = 0;
};

class HXOSDetect {
public:
    static bool isLeopardOrHigher();
    static bool isSnowLeopardOrHigher();
    static bool isLionOrHigher();
    static bool isMountainLionOrHigher();
    static bool isMavericksOrHigher();
    static bool isYosemiteOrHigher();
    static bool isElCapitanOrHigher();
    // True when the running version is at least the given one (equal included,
    // whatever the name says).
    static bool isOSVersionHigherThan(long major, long minor, long bugFix);
    // "major.minor.bugfix"
    static QString osxVersion();
    // Fills the outputs that are given; 10.5.0, with a line in the system log, when
    // the version cannot be had.
    static void getSystemVersion(long *major, long *minor, long *bugFix);

    // The old packed form of a version before 10.4: binary-coded decimal digits
    // "MMmb" (0x1039 is 10.3.9).
    static HXSystemVersion decodeSystemVersionBCD(unsigned value);
    // The comparison behind isOSVersionHigherThan, for any running version.
    static bool isAtLeast(const HXSystemVersion &running, const HXSystemVersion &wanted);
};
