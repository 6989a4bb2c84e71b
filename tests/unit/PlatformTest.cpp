#include "base/ChildProcess.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "support/CapturedLog.h"
#include "support/ScratchFolder.h"
#include "support/WaitUntil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <thread>

namespace {

std::string script(const ScratchFolder& folder, const std::string& body) {
    std::string path = folder.path() + "/tool";
    std::ofstream(path) << "#!/bin/sh\n" << body;
    EXPECT_EQ(chmod(path.c_str(), 0755), 0);
    return path;
}

TEST(Child, DetachedIsNotReaped) {
    const ScratchFolder folder;
    const std::string number = folder.path() + "/pid";
    ChildProcess tool;
    tool.path = script(folder, "echo $$ > \"$1\"; exec sleep 600\n");
    tool.arguments = {number};
    ASSERT_FALSE(tool.startDetached());
    ASSERT_TRUE(waitUntil([&] { return readFile(number).value_or("").ends_with("\n"); }));
    reapEveryChild(); // would wait ten minutes for a child
    EXPECT_EQ(wait(nullptr), -1);
    EXPECT_EQ(kill(std::stoi(*readFile(number)), SIGKILL), 0);
}

TEST(Child, IsNotStartedWithoutADescriptorToReportOn) {
    ChildProcess tool;
    tool.path = "/nonexistent";
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::error_code failure = tool.startDetached();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(failure, std::errc::too_many_files_open);
}

TEST(Child, GetsTheStandardStreamsAndNoOtherDescriptor) {
    const ScratchFolder folder;
    const int leaked = open("/dev/null", O_RDONLY); // without close-on-exec, as a library might
    const std::string output = folder.path() + "/output";
    ChildProcess tool;
    tool.path = script(folder, "pwd; env; ls /proc/self/fd\n");
    tool.workingFolder = "/usr";
    tool.environment = {"PATH=/usr/bin:/bin"};
    tool.standardInput = ChildProcess::kNull;
    tool.standardOutput = open(output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    std::error_code failure;
    waitUntilExit(tool.start(failure));
    close(leaked);
    close(tool.standardOutput);
    const std::string text = readFile(output).value_or("");
    EXPECT_TRUE(text.starts_with("/usr\n")) << failure.message() << text;
    EXPECT_EQ(text.find("HOME="), std::string::npos);
    EXPECT_TRUE(text.ends_with("\n0\n1\n2\n3\n")) << text; // 3 is the folder that ls reads
}

TEST(Log, LinesOfManyThreadsNeverMix) {
    const CapturedLog log;
    const std::string body(300, 'x');
    std::array<std::jthread, 4> threads;
    for (std::jthread& thread : threads) {
        thread = std::jthread([&body] {
            for (int line = 0; line < 200; ++line) {
                NSLog("begin%send", body.c_str());
            }
        });
    }
    for (std::jthread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.count("] begin" + body + "end\n"), 800);
}

TEST(PropertyList, GivesOutermostStringsOnly) {
    const ScratchFolder folder;
    const std::string path = folder.path() + "/Info.plist";
    std::ofstream(path) << R"(<?xml version="1.0" encoding="UTF-8"?>
        <!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
        <plist version="1.0"><dict>
          <key>Nested</key><dict><key>Name</key><string>wrong</string></dict>
          <key>Flag</key><true/>
          <key>Name</key><string>游戏 &amp; more</string>
          <key>Number</key><integer>3</integer>
        </dict></plist>)";
    EXPECT_EQ(propertyListString(path, "Name"), "游戏 & more");
    EXPECT_EQ(propertyListString(path, "Number"), std::nullopt);
    std::ofstream(path) << "<plist><dict><key>Name</key><str";
    EXPECT_EQ(propertyListString(path, "Name"), std::nullopt);
}

} // namespace
