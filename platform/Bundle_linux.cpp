#include "platform/Bundle.h"

#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace {

bool isInsideBundle(const fs::path& executable) {
    const fs::path folder = executable.parent_path();
    return folder.filename() == "MacOS" && folder.parent_path().filename() == "Contents" &&
           folder.parent_path().parent_path().extension() == ".app";
}

} // namespace

const std::string& executablePath() {
    static const std::string path = [] {
        std::error_code unreadable;
        std::string target = fs::read_symlink("/proc/self/exe", unreadable).string();
        // The kernel appends this when the program's file was replaced while it runs.
        constexpr std::string_view kReplaced = " (deleted)";
        if (target.ends_with(kReplaced)) {
            target.resize(target.size() - kReplaced.size());
        }
        return target;
    }();
    return path;
}

const std::string& bundlePath() {
    static const std::string path = [] {
        const fs::path executable = executablePath();
        const fs::path folder = executable.parent_path();
        return (isInsideBundle(executable) ? folder.parent_path().parent_path() : folder).string();
    }();
    return path;
}

std::string bundleResourcePath(const std::string& name, const std::string& type) {
    const bool inside = isInsideBundle(executablePath());
    return bundlePath() + (inside ? "/Contents/Resources/" : "/") + name + "." + type;
}
