#include "base/ChildProcess.h"
#include "platform/Log.h"
#include "support/CapturedLog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <thread>

namespace {

TEST(Child, IsNotStartedWithoutADescriptorToReportOn) {
    ChildProcess tool;
    tool.path = "/nonexistent";
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const std::error_code failure = tool.startDetached();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(failure, std::errc::too_many_files_open);
}

TEST(Child, GetsTheStandardStreamsAndNoOtherDescriptor) {
    const int leaked = open("/dev/null", O_RDONLY); // without close-on-exec, as a library might
    const CapturedLog output(STDOUT_FILENO);
    ChildProcess tool;
    tool.path = "ls";
    tool.arguments = {"/proc/self/fd"};
    std::error_code failure;
    waitUntilExit(tool.start(failure));
    close(leaked);
    EXPECT_EQ(output.text(), "0\n1\n2\n3\n") << failure.message(); // 3 is the folder that ls reads
}

TEST(Log, LinesOfManyThreadsNeverMix) {
    const CapturedLog log;
    for (std::array<std::jthread, 4> threads; std::jthread & thread : threads) {
        thread = std::jthread([] {
            for (int line = 0; line < 200; ++line) {
                NSLog("begin%0300dend", 0);
            }
        });
    }
    EXPECT_EQ(log.count("] begin" + std::string(300, '0') + "end\n"), 800);
}

} // namespace
