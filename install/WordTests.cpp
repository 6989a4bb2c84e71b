#include "install/WordTests.h"

#include "rights/PrivilegedCommands.h"

#include <algorithm>

bool caseinsensitive_equal::operator()(char a, char b) const {
    const auto& facet = std::use_facet<std::ctype<char>>(locale_);
    return facet.toupper(a) == facet.toupper(b);
}

int ci_find_substr(const std::string& haystack, const std::string& needle, const std::locale& locale) {
    const auto found = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(),
                                   caseinsensitive_equal(locale));
    if (found == haystack.end() && !needle.empty()) {
        return -1;
    }
    return static_cast<int>(found - haystack.begin());
}

bool saysFailure(const std::string& output) {
    return ci_find_substr(output, "error") != -1 || ci_find_substr(output, "invalid") != -1;
}

bool saysDriverLoaded(const std::string& output) {
    return output.find(kDriverIdentifier) != std::string::npos;
}

bool saysDriverStartFailed(const std::string& output) {
    const auto holds = [&output](const char* word) { return output.find(word) != std::string::npos; };
    return holds("Error") && holds("VBoxDrv") && holds("VirtualBox");
}
