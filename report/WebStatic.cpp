#include "report/WebStatic.h"

#include "base/ChildProcess.h"
#include "platform/Bundle.h"

#include <filesystem>
#include <utility>

namespace {

void startTool(std::vector<std::string> arguments) {
    ChildProcess tool;
    tool.path = webStatisticsPath(executablePath());
    tool.arguments = std::move(arguments);
    [[maybe_unused]] const bool isStarted = tool.startDetached();
}

} // namespace

void executeWebStatic(const char* code) {
    startTool({"14", code});
}

void submitWebStatic() {
    startTool({"13"});
}

std::string webStatisticsPath(const std::string& executablePath) {
    return std::filesystem::path(executablePath + "/../WebStatistics").lexically_normal().string();
}
