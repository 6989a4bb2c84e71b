#include "download/TemporaryFile.h"

#include "platform/FileManager.h"
#include "platform/Folders.h"
#include "platform/Log.h"
#include "ui/StatusTexts.h"

#include <cerrno>

namespace {

constexpr char kFileName[] = "/Pellomar.tmp";

std::error_code makeFolder(const std::string& directory) {
    bool isDirectory = false;
    const bool exists = fileExists(directory, &isDirectory);
    if (isDirectory) {
        // A failure is ignored: creating the file then fails for the same reason.
        static_cast<void>(removeItem(directory + kFileName));
        return {};
    }
    if (exists) {
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

std::string createTemporaryFile(const std::string& directory) {
    if (const std::error_code failure = makeFolder(directory)) {
        NSLog("create temp file failed:%s", systemErrorText(failure.value()));
        return localizedDescription(failure);
    }
    if (!createFile(directory + kFileName)) {
        NSLog("create temp file failed:%s", systemErrorText(errno));
        return status::kCannotCreateTemporaryFile;
    }
    NSLog("create temp file successful");
    return "";
}
