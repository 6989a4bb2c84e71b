#include "rights/Command.h"

#include "install/WordTests.h"
#include "support/ScratchFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

namespace {

using rights::Command;

const std::string kScript = "/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh";
const std::string kApplication = "/Applications/Pellomar.app";
const std::string kDriver = "com.norvik.emu.kext.VBoxDrv";

Command installationOf(const std::string& package) {
    return {"/usr/sbin/installer", "-pkg", package, "-target", "/"};
}

class Package : public testing::Test {
  protected:
    Package() : path_(folder_.path() + "/下载 1/Pellomar.pkg") {
        std::filesystem::create_directory(folder_.path() + "/下载 1");
        std::ofstream(path_) << "xar!";
    }

    ScratchFolder folder_;
    std::string path_;
};

TEST_F(Package, TheFourCommandsOfAnInstallationAreAllowed) {
    for (const Command& command :
         {Command{"/bin/rm", "-rf", kApplication}, installationOf(path_),
          Command{"/usr/sbin/kextstat", "-b", kDriver}, Command{kScript, "restart"}}) {
        EXPECT_EQ(rights::whyRefused(command, getuid()), "") << command[0];
    }
}

TEST_F(Package, EveryOtherCommandIsRefused) {
    const Command refused[] = {{},
                               {""},
                               {"/bin/sh", "-c", "true"},
                               {"/usr/bin/rm", "-rf", kApplication},
                               {"/bin//rm", "-rf", kApplication},
                               {"/bin/../bin/rm", "-rf", kApplication},
                               {"/bin/rm"},
                               {"/bin/rm", "-rf"},
                               {"/bin/rm", kApplication},
                               {"/bin/rm", "-rf", "/Applications"},
                               {"/bin/rm", "-rf", kApplication + "/"},
                               {"/bin/rm", "-rf", kApplication + "/.."},
                               {"/bin/rm", "-rf", "/Applications/pellomar.app"},
                               {"/bin/rm", "-rf", kApplication, "/etc"},
                               {"/bin/rm", "-rf", kApplication + " /etc"},
                               {"/bin/rm", "-pkg", path_, "-target", "/"},
                               {"/usr/sbin/installer"},
                               {"/usr/sbin/installer", "-pkg", path_},
                               {"/usr/sbin/installer", "-target", "/", "-pkg", path_},
                               {"/usr/sbin/installer", "-pkg", path_, "-target", "/tmp"},
                               {"/usr/sbin/installer", "-pkg", path_, "-target", "/", "-force"},
                               {"/usr/sbin/installer", path_, "-pkg", "-target", "/"},
                               {"/usr/sbin/kextstat"},
                               {"/usr/sbin/kextstat", "-b"},
                               {"/usr/sbin/kextstat", "-b", "com.norvik.emu.kext.VBoxNetFlt"},
                               {"/usr/sbin/kextstat", "-b", kDriver + "\n"},
                               {"/usr/sbin/kextstat", "-b", kDriver, "-b", kDriver},
                               {kScript},
                               {kScript, "stop"},
                               {kScript, "restart;id"},
                               {path_, "restart"}};
    for (const Command& command : refused) {
        EXPECT_EQ(rights::whyRefused(command, getuid()), "not a command of an installation")
            << testing::PrintToString(command);
    }
}

TEST_F(Package, PathsThatAreNotToAPackageAreRefused) {
    const std::string folder = folder_.path() + "/下载 1/";
    for (const std::string& path :
         {std::string("/"), std::string("Pellomar.pkg"), "." + path_, path_ + "/.", folder + "pellomar.pkg",
          folder + "../下载 1/Pellomar.pkg", "/.." + path_}) {
        EXPECT_EQ(rights::whyRefused(installationOf(path), getuid()),
                  "not an absolute path to a Pellomar.pkg")
            << path;
    }
}

TEST_F(Package, OnlyARegularFileOfTheCallersIsAPackage) {
    const auto place = [&](const std::string& name) {
        std::filesystem::create_directory(folder_.path() + "/" + name);
        return folder_.path() + "/" + name + "/Pellomar.pkg";
    };
    const std::string link = place("link");
    std::filesystem::create_symlink(path_, link);
    const std::string folder = place("folder");
    std::filesystem::create_directory(folder);
    const std::string pipe = place("pipe"); // opening it for use would wait for ever
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string& path : {link, folder, pipe, place("nothing"), path_ + "/Pellomar.pkg"}) {
        EXPECT_EQ(rights::whyRefused(installationOf(path), getuid()),
                  "the package is not a regular file of the caller's own")
            << path;
    }
    EXPECT_NE(rights::whyRefused(installationOf(path_), getuid() + 1), "");
    std::filesystem::create_directory_symlink(folder_.path() + "/下载 1", folder_.path() + "/Downloads");
    EXPECT_EQ(rights::whyRefused(installationOf(folder_.path() + "/Downloads/Pellomar.pkg"), getuid()), "")
        << "a folder may be a link, as many people's Downloads is";
}

TEST(Trust, AProgramThatOthersCouldChangeIsNotRootsAlone) {
    EXPECT_TRUE(rights::isRootsAlone("/bin/rm"));
    EXPECT_TRUE(rights::isRootsAlone("/"));
    EXPECT_FALSE(rights::isRootsAlone("/usr/sbin/no-such-program"));
    EXPECT_FALSE(rights::isRootsAlone(""));

    const ScratchFolder folder; // everybody may write to the folder above it
    const std::string script = folder.path() + "/script";
    std::ofstream(script) << "#!/bin/sh\n";
    EXPECT_FALSE(rights::isRootsAlone(script));
}

TEST(Tool, ItsDeathBySignalCountsAsItsFailure) {
    EXPECT_TRUE(saysFailure(rights::failureLine("/bin/rm", SIGKILL)));
    EXPECT_TRUE(saysFailure(rights::failureLine("/usr/sbin/installer", SIGSEGV)));
    EXPECT_FALSE(saysDriverLoaded(rights::failureLine("/usr/sbin/kextstat", SIGKILL)));
    EXPECT_TRUE(saysDriverStartFailed(rights::failureLine(kScript, SIGTERM)));
}

} // namespace
