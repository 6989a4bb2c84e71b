#include "platform/PropertyList.h"
#include "platform/SystemVersion.h"

#include <sys/utsname.h>

#include <array>
#include <charconv>

SystemVersion parsedSystemVersion(std::string_view text) {
    std::array<int, 3> fields{};
    for (int& field : fields) {
        const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), field);
        if (failed != std::errc{}) {
            field = 0;
            break;
        }
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        if (!text.starts_with('.')) {
            break;
        }
        text.remove_prefix(1);
    }
    return {fields[0], fields[1], fields[2]};
}

SystemVersion systemVersion() {
    if (const auto product =
            propertyListString("/System/Library/CoreServices/SystemVersion.plist", "ProductVersion")) {
        return parsedSystemVersion(*product);
    }
    utsname kernel{};
    uname(&kernel);
    return parsedSystemVersion(kernel.release);
}
