#include "base/ChildProcess.h"
#include "platform/OutputStreams.h"
#include "support/CapturedLog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

TEST(Child, GetsTheStandardStreamsNoOtherDescriptorAndNoIgnoredSignal) {
    ignoreBrokenPipes();
    const int leaked = open("/dev/null", O_RDONLY); // without close-on-exec, as a library might
    const std::vector<std::string> rows[] = {
        {"ls", "/proc/self/fd", "0\n1\n2\n3\n"}, // 3 is the folder that ls reads
        {"sh", "-c", "kill -PIPE $$; echo lives on", ""}};
    for (const std::vector<std::string>& row : rows) {
        const CapturedLog output(STDOUT_FILENO);
        ChildProcess tool;
        tool.path = row.front();
        tool.arguments = {row.begin() + 1, row.end() - 1};
        waitUntilExit(tool.start());
        EXPECT_EQ(output.text(), row.back());
    }
    close(leaked);
}

} // namespace
