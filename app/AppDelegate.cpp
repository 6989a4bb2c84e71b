#include "app/AppDelegate.h"

#include "platform/FileManager.h"
#include "platform/Folders.h"
#include "platform/Log.h"
#include "platform/OutputStreams.h"

#include <algorithm>
#include <array>

namespace {

bool isAscii(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

} // namespace

void AppDelegate::applicationDidFinishLaunching() {
    redirectNSlogToDocumentFolder();
}

void AppDelegate::applicationWillTerminate() {}

void AppDelegate::redirectNSlogToDocumentFolder() {
    const std::string path = logFilePath(createDocumentsDirectory(), std::time(nullptr));
    static_cast<void>(removeItem(path));
    NSLog("%s", path.c_str());
    if (isAscii(path)) {
        redirectStandardStreams(path);
    }
    ignoreOutputErrors();
}

std::string logFilePath(const std::string& documents, std::time_t time) {
    std::tm local{};
    localtime_r(&time, &local);
    std::array<char, 32> stamp{};
    std::strftime(stamp.data(), stamp.size(), "%Y%m%d%H%M%S", &local);
    return documents + "/LOG-" + stamp.data() + ".txt";
}
