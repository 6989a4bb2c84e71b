#include "Process.h"
#include "kextstat/ModuleTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <system_error>

namespace fs = std::filesystem;
using namespace kextstat;

namespace {

constexpr char kDriver[] = "com.norvik.emu.kext.VBoxDrv";

std::vector<std::string> names(const std::vector<Module>& modules) {
    std::vector<std::string> all;
    all.reserve(modules.size());
    for (const Module& module : modules) {
        all.push_back(module.name);
    }
    return all;
}

TEST(Kextstat, NamesTheIdentifierOnlyInTheRowOfALoadedDriver) {
    const struct {
        const char* list;
        const char* identifier;
        bool loaded;
    } rows[] = {
        {"vboxdrv 507904 3 vboxnetadp,vboxnetflt, Live 0x0000000000000000 (OE)\n", kDriver, true},
        {"snd 1 0 - Live 0x0\nvboxdrv 2 0 - Live 0x0\n", "VBOXDRV", true},
        {"snd_hda 1 0 - Live 0x0\n", "org.example.SND-HDA", true},
        {"vboxnetflt 2 0 - Live 0x0\nvboxdrv2 2 0 - Live 0x0\n", kDriver, false},
        {"snd 1 1 vboxdrv, Live 0x0\n", kDriver, false},
        {"vboxdrv 2 0 - Loading 0x0\n", kDriver, false},
        {"vboxdrv 2 0 - Unloading 0x0\n", kDriver, false},
        {"vboxdrv\n", kDriver, false},
        {"", kDriver, false},
    };
    const TemporaryFolder scratch;
    const Sources sources{scratch / "modules", scratch / "absent"};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.list);
        writeFile(sources.list, row.list);
        const std::string text = table(loadedModules(sources), row.identifier);
        EXPECT_EQ(text.rfind("Index", 0), 0U);
        EXPECT_EQ(text.find(row.identifier) != std::string::npos, row.loaded) << text;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), row.loaded ? 2 : 1) << text;
    }
}

TEST(Kextstat, FallsBackToTheFolderOnlyWhereThereIsNoList) {
    const TemporaryFolder scratch;
    const Sources sources{scratch / "modules", scratch / "module"};
    EXPECT_THROW(loadedModules(sources), std::system_error);
    for (const char* name : {"vboxdrv", "acpi", "coming"}) {
        fs::create_directories(sources.folder / name);
    }
    writeFile(sources.folder / "vboxdrv/initstate", "live\n");
    writeFile(sources.folder / "vboxdrv/coresize", "507904\n");
    writeFile(sources.folder / "vboxdrv/refcnt", "3\n");
    writeFile(sources.folder / "coming/initstate", "coming\n");
    EXPECT_EQ(names(loadedModules(sources)), (std::vector<std::string>{"acpi", "vboxdrv"}));
    EXPECT_EQ(table(loadedModules(sources), kDriver),
              "Index Refs       Size Name\n    2    3     507904 com.norvik.emu.kext.VBoxDrv\n");
    writeFile(sources.list, "snd 1 0 - Live 0x0\n");
    EXPECT_EQ(names(loadedModules(sources)), std::vector<std::string>{"snd"});
    // A list that is there but tells nothing must not pass for an empty one.
    fs::remove(sources.list);
    fs::create_directory(sources.list);
    EXPECT_THROW(loadedModules(sources), std::system_error);
}

TEST(Kextstat, AnswersForThisKernel) {
    const Outcome absent = run({KEXTSTAT_PROGRAM, "-b", "com.example.NoSuchDriver"});
    std::vector<Module> modules;
    try {
        modules = loadedModules({});
    } catch (const std::system_error&) {
        EXPECT_NE(absent.status, 0);
        EXPECT_NE(absent.errors, "");
        GTEST_SKIP() << "this kernel tells nothing of its drivers";
    }
    EXPECT_EQ(absent.output, table({}, {}));
    EXPECT_EQ(absent.status, 0);
    ASSERT_FALSE(modules.empty());
    std::string name = modules.front().name;
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
    EXPECT_NE(run({KEXTSTAT_PROGRAM, "-b", "com.example." + name}).output.find("com.example." + name + "\n"),
              std::string::npos);
    EXPECT_NE(run({KEXTSTAT_PROGRAM}).output.find(modules.front().name), std::string::npos);
}

TEST(Kextstat, RefusesWrongUseWithoutRepeatingIt) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"-b"}, {"-b", "com.norvik."}, {"-b", ""}, {kDriver}}) {
        std::vector<std::string> command{KEXTSTAT_PROGRAM};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const Outcome outcome = run(command);
        EXPECT_NE(outcome.status, 0);
        EXPECT_EQ(outcome.output, "");
        EXPECT_NE(outcome.errors, "");
        EXPECT_EQ(outcome.errors.find("norvik"), std::string::npos);
    }
    EXPECT_EQ(run({KEXTSTAT_PROGRAM, "--help"}).output.find("norvik"), std::string::npos);
}

} // namespace
