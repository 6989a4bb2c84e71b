#include "host/kextstat/ModuleTable.h"

#include <gtest/gtest.h>

#include <fstream>
#include <tuple>

// A loaded driver's identifier stands in the table, and in no other case.
TEST(Kextstat, NamesOnlyALoadedDriver) {
    constexpr char kDriver[] = "com.norvik.emu.kext.VBoxDrv";
    const std::tuple<std::string, std::string, bool> rows[] = {
        {"snd 1 0 - Live 0x0\nvboxdrv 507904 3 vboxnetadp,vboxnetflt, Live 0x0 (OE)\n", kDriver, true},
        {"snd_hda 1 0 - Live 0x0\n", "org.example.SND-HDA", true},
        {"vboxnetflt 2 0 - Live 0x0\nvboxdrv2 2 0 - Live 0x0\n", kDriver, false},
        {"snd 1 1 vboxdrv, Live 0x0\n", kDriver, false},
        {"vboxdrv 2 0 - Unloading 0x0\n", kDriver, false}};
    const kextstat::Sources sources{testing::TempDir() + "/kextstat-modules", "/absent"};
    for (const auto& [list, identifier, isLoaded] : rows) {
        std::ofstream(sources.list) << list;
        const std::string text = table(loadedModules(sources), identifier);
        EXPECT_EQ(text.find(identifier) != std::string::npos, isLoaded) << list << text;
    }
    std::filesystem::remove(sources.list);
    EXPECT_THROW(loadedModules(sources), std::system_error); // not an empty table
}
