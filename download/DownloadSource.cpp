#include "download/DownloadSource.h"

#include "BuildConstants.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Text.h"

std::string downloadUrl(const std::string& bundlePath, const std::string& fallbackPath) {
    std::string path = bundlePath + "/../.config";
    if (!fileExists(path)) {
        path = fallbackPath;
        // Logs the path that is tried next, not the missing one.
        NSLog("Config File does not exists!:%s", path.c_str());
    }
    const std::optional<std::string> content = readFile(path);
    if (!content) {
        NSLog("Open of File for reading failed:%s!", path.c_str());
        return "";
    }
    return std::string("http://") + constants::kDownloadHost + "/soft/" + described(decodedUtf8(*content));
}
