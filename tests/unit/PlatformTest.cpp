#include "base/ChildProcess.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/MainThread.h"
#include "platform/PropertyList.h"
#include "platform/WorkerThread.h"
#include "support/CapturedLog.h"
#include "support/ScratchFolder.h"
#include "support/WaitUntil.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

namespace {

std::string script(const ScratchFolder& folder, const std::string& body) {
    std::string path = folder.path() + "/tool";
    std::ofstream(path) << "#!/bin/sh\n" << body;
    EXPECT_EQ(chmod(path.c_str(), 0755), 0);
    return path;
}

TEST(Child, DetachedIsNeverOursToReap) {
    const ScratchFolder folder;
    ChildProcess tool;
    tool.path = script(folder, "echo $$ > \"$1\"; exec sleep 600\n");
    tool.arguments = {folder.path() + "/pid"};
    ASSERT_FALSE(tool.startDetached());
    ASSERT_TRUE(waitUntil([&] { return readFile(folder.path() + "/pid").value_or("").ends_with("\n"); }));
    reapEveryChild(); // would wait ten minutes for a child
    EXPECT_EQ(wait(nullptr), -1);
    EXPECT_EQ(kill(std::stoi(*readFile(folder.path() + "/pid")), SIGKILL), 0);
}

TEST(Child, ThatCannotRunIsToldAndLeavesNothing) {
    const ScratchFolder folder;
    std::ofstream(folder.path() + "/plain") << "not executable";
    for (const std::string& path : {folder.path() + "/missing", folder.path() + "/plain", folder.path()}) {
        ChildProcess tool;
        tool.path = path;
        std::error_code failure;
        EXPECT_EQ(tool.start(failure), -1) << path;
        EXPECT_TRUE(failure) << path;
        EXPECT_TRUE(tool.startDetached()) << path;
    }
    EXPECT_EQ(wait(nullptr), -1);
}

TEST(Child, GetsTheStandardStreamsAndNoOtherDescriptor) {
    const ScratchFolder folder;
    const int leaked = open("/dev/null", O_RDONLY); // without close-on-exec, as a library might
    ASSERT_GE(leaked, 0);
    ChildProcess tool;
    tool.path = script(folder, "pwd; env; ls /proc/self/fd\n");
    tool.workingFolder = "/usr";
    tool.environment = {"PATH=/usr/bin:/bin"};
    tool.standardInput = ChildProcess::kNull;
    const std::string output = folder.path() + "/output";
    const int sink = open(output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    tool.standardOutput = sink;
    std::error_code failure;
    const pid_t pid = tool.start(failure);
    ASSERT_GT(pid, 0) << failure.message();
    waitUntilExit(pid);
    close(leaked);
    close(sink);
    const std::string text = readFile(output).value_or("");
    EXPECT_TRUE(text.starts_with("/usr\n")) << text;
    EXPECT_EQ(text.find("HOME="), std::string::npos);
    EXPECT_TRUE(text.ends_with("\n0\n1\n2\n3\n")) << text; // 3 is the folder that ls reads
}

TEST(Log, LinesOfManyThreadsNeverMix) {
    CapturedLog log;
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    const std::string body(300, 'x');
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&body] {
            for (int line = 0; line < kLines; ++line) {
                NSLog("begin%send", body.c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.count("] begin" + body + "end\n"), kThreads * kLines);
}

bool serveUntil(const std::function<bool()>& condition) {
    QDeadlineTimer deadline(std::chrono::seconds(30));
    while (!condition() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return condition();
}

TEST(MainThreadWork, ArrivesInOrderFromManyThreadsAndInsideDialogs) {
    std::vector<int> last(3, -1);
    std::atomic<int> unfinished{3};
    for (int poster = 0; poster < 3; ++poster) {
        WorkerThread::start([&, poster] {
            for (int i = 0; i < 400; ++i) {
                MainThread::performAndWait([&, poster, i] {
                    EXPECT_TRUE(MainThread::isCurrent());
                    EXPECT_EQ(last[static_cast<std::size_t>(poster)], i - 1);
                    last[static_cast<std::size_t>(poster)] = i;
                    if (poster == 0 && i == 200) {
                        // A dialog's loop must serve the other posters meanwhile.
                        const int before = last[1];
                        EXPECT_TRUE(serveUntil([&] { return last[1] > before || last[1] == 399; }));
                    }
                });
            }
            --unfinished;
        });
    }
    EXPECT_TRUE(serveUntil([&] { return unfinished == 0 && WorkerThread::running() == 0; }));
    EXPECT_EQ(last, std::vector(3, 399));
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

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const QCoreApplication application(argc, argv);
    MainThread::attach();
    return RUN_ALL_TESTS();
}
