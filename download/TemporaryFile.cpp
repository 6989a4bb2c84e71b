#include "download/TemporaryFile.h"

#include "platform/FileManager.h"
#include "platform/Folders.h"
#include "platform/Log.h"
#include "ui/StatusTexts.h"

namespace {

constexpr char kFileName[] = "/Pellomar.tmp";

/// Makes `directory` a folder without a temporary file.
std::error_code prepareFolder(const std::string& directory) {
    if (isFolder(directory)) {
        // If this fails, creating the file fails for the same reason.
        static_cast<void>(removeItem(directory + kFileName));
        return {};
    }
    if (fileExists(directory)) {
        if (const std::error_code failure = removeItem(directory)) {
            return failure;
        }
    }
    return createDirectory(directory);
}

} // namespace

std::string downloadDirectory() {
    return NSHomeDirectory() + "/Downloads/NVInst";
}

std::string temporaryFilePath() {
    return downloadDirectory() + kFileName;
}

std::string packagePath() {
    return downloadDirectory() + "/Pellomar.pkg";
}

std::optional<std::string> createTemporaryFile(const std::string& directory) {
    if (const std::error_code failure = prepareFolder(directory)) {
        NSLog("create temp file failed:%s", systemErrorText(failure.value()));
        return status::causeOf(failure);
    }
    if (const std::error_code failure = createFile(directory + kFileName)) {
        NSLog("create temp file failed:%s", systemErrorText(failure.value()));
        return status::kCannotCreateTemporaryFile;
    }
    NSLog("create temp file successful");
    return std::nullopt;
}
