#include "host/package/PackageInfo.h"

#include "host/package/Failure.h"
#include "host/package/Text.h"
#include "host/package/Version.h"
#include "host/package/Xml.h"

#include <algorithm>
#include <charconv>

namespace package {

namespace {

// One that is fit for a file's name.
bool isPlainWord(const std::string& text) {
    constexpr std::size_t kLongest = 200;
    return !text.empty() && text.size() <= kLongest && text.front() != '.' &&
           std::all_of(text.begin(), text.end(),
                       [](unsigned char c) { return c > ' ' && c < 0x7f && c != '/'; });
}

std::optional<std::uint64_t> kilobytesOf(const Element& root) {
    const Element* payload = root.child("payload");
    const std::string text = payload != nullptr ? payload->attribute("installKBytes") : std::string();
    if (text.empty()) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (problem != std::errc() || end != text.data() + text.size() || value >> 50 != 0) {
        throw Failure("PackageInfo has no usable size");
    }
    return value;
}

// Only two scripts are run; one of another name must not be taken for run.
std::vector<std::string> scriptsOf(const Element& root) {
    std::vector<std::string> names;
    const Element* scripts = root.child("scripts");
    for (const Element& script : scripts ? scripts->children : std::vector<Element>()) {
        const std::string file = script.attribute("file");
        if (!isScript(script.name) || (file != script.name && file != "./" + script.name)) {
            throw Failure("PackageInfo names the script " + inQuotes(file) + " as " + inQuotes(script.name) +
                          "; only preinstall and postinstall of these names are run");
        }
        names.push_back(script.name);
    }
    return names;
}

} // namespace

bool isScript(std::string_view name) {
    return name == kPreinstall || name == kPostinstall;
}

PackageInfo parsePackageInfo(std::string_view xml) {
    const Element root = parseXml(xml, "PackageInfo");
    if (root.name != "pkg-info") {
        throw Failure("PackageInfo describes no package: its root is " + inQuotes(root.name));
    }
    if (const std::string format = root.attribute("format-version"); !format.empty() && format != "2") {
        throw Failure("PackageInfo has the unknown format version " + inQuotes(format));
    }
    PackageInfo info{
        root.attribute("identifier"), root.attribute("version"), {}, kilobytesOf(root), scriptsOf(root)};
    if (!isPlainWord(info.identifier)) {
        throw Failure("PackageInfo has no usable identifier");
    }
    if (!isVersion(info.version) || !isPlainWord(info.version)) {
        throw Failure("PackageInfo has the version " + inQuotes(info.version) +
                      "; only digits and dots can be compared, as in 2.0.1");
    }
    std::string location = root.attribute("install-location");
    location.erase(0, location.find_first_not_of('/'));
    if (!location.empty()) {
        info.location = relativePath(location);
    }
    return info;
}

} // namespace package
