#include "report/VersionStamp.h"

#include "BuildConstants.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Text.h"

#include <fstream>

namespace {

std::string rewrittenField(std::string_view field, const std::string& version) {
    const auto holds = [field](std::string_view key) { return field.find(key) != std::string_view::npos; };
    if (holds("Describe")) {
        return "Describe=B-" + version;
    }
    // Before the next key, which it contains.
    if (holds("OrgProductVersion")) {
        return "OrgProductVersion=" + version;
    }
    if (holds("ProductVersion")) {
        return "ProductVersion=" + version;
    }
    return std::string(field);
}

} // namespace

std::string updateInformationUrl() {
    return std::string("http://") + constants::kUpdateHost +
           "/Interfaces/UpdaterExeInfo.aspx?toolKey=KvEmulatorNAT&sign=3c1f9a7e5b2d40c8a6e9f1b7d3c5a0e2";
}

std::vector<std::string> rewrittenStampFields(std::string_view content,
                                              const std::optional<std::string>& version) {
    std::vector<std::string> fields;
    if (!decodedUtf8(content)) {
        return fields;
    }
    for (;;) {
        const std::size_t separator = content.find('|');
        fields.push_back(rewrittenField(content.substr(0, separator), described(version)) + "|");
        if (separator == std::string_view::npos) {
            return fields;
        }
        content.remove_prefix(separator + 1);
    }
}

void rewriteStampFile(const std::string& path, const std::optional<std::string>& version) {
    if (!fileExists(path)) {
        return;
    }
    const std::optional<std::string> content = readFile(path);
    if (!content) {
        NSLog("Open of File for reading failed!");
        return;
    }
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    if (!file.is_open()) {
        NSLog("Open of File for writing failed!");
        return;
    }
    for (const std::string& field : rewrittenStampFields(*content, version)) {
        file << field << std::flush;
    }
}
