#pragma once

#include <string_view>

/// The operating system's version; missing fields are 0.
struct SystemVersion {
    int major = 0;
    int minor = 0;
    int bugFix = 0;
};

/// Reads "10.14.6", "11.0" or a kernel's "6.1.0-13-amd64": digits separated by dots, up to the first other
/// character.
SystemVersion parsedSystemVersion(std::string_view text);

/// ProductVersion of /System/Library/CoreServices/SystemVersion.plist if there is one, else the kernel's
/// release. Any thread; read on each call.
SystemVersion systemVersion();
