#include "Fixture.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <random>
#include <thread>

namespace {

const std::vector<Entry> kGoodTree = {
    folder("."),
    folder("./Applications", 0700),
    folder("./Applications/Pellomar.app", 0750),
    file("./Applications/Pellomar.app/run", std::string(300'000, 'r'), 0755),
    file("./Applications/Pellomar.app/游戏数据.bin", "数据", 0640),
    file("./Applications/Pellomar.app/Error invalid", "", 0600),
    folder("./Applications/Pellomar.app/Versions", 0555),
    folder("./Applications/Pellomar.app/Versions/A"),
    symbolicLink("./Applications/Pellomar.app/Versions/Current", "A"),
    file("./Applications/Pellomar.app/late/data"),
    folder("./Applications/Pellomar.app/late", 0711), // after what it holds
    file("./Library/Application Support/NorvikEmu/VirtualBoxStartup.sh", "#!/bin/bash\n", 0755),
};

TEST_F(Installer, InstallsModesTimesAndNamesAndSpellsNeitherWord) {
    // These two are shared with others, and were here first.
    fs::create_directories(target / "Applications");
    fs::create_directories(target / "Library/Application Support");
    fs::permissions(target / "Applications", fs::perms(0775));
    const auto before = fs::last_write_time(target);
    // An old copy under another name must not change along with the new one.
    fs::create_directories(target / "Library/Application Support/NorvikEmu");
    writeFile(outside / "old", "old");
    fs::create_hard_link(outside / "old",
                         target / "Library/Application Support/NorvikEmu/VirtualBoxStartup.sh");

    const Outcome outcome =
        install(makePackage(makePayload(kGoodTree), "<pkg-info identifier='com.error' version='invalid'/>"));
    expectSuccess(outcome);

    auto tree = snapshot(target);
    for (const Entry& entry : kGoodTree) {
        const std::string name = fs::path(entry.name).lexically_normal().string();
        if (name == "." || name == "Applications") {
            continue;
        }
        char mode[16];
        std::snprintf(mode, sizeof mode, "%o ", entry.mode);
        EXPECT_EQ(tree[name], mode + entry.content) << name;
        struct stat status {};
        ASSERT_EQ(lstat((target / name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mtime, kEntryTime) << name;
        EXPECT_EQ(status.st_uid, geteuid() == 0 ? kEntryOwner : geteuid()) << name;
    }
    EXPECT_EQ(fs::status(target / "Applications").permissions(), fs::perms(0775));
    EXPECT_EQ(fs::status(target / "Library/Application Support/NorvikEmu").permissions(), fs::perms(0755));
    EXPECT_EQ(readFile(outside / "old"), "old");
    EXPECT_GE(fs::last_write_time(target), before);

    // A folder that no entry describes is root's.
    struct stat library {};
    ASSERT_EQ(lstat((target / "Library").c_str(), &library), 0);
    EXPECT_EQ(library.st_uid, geteuid());
    EXPECT_EQ(library.st_mode & 07777, 0755U);
    EXPECT_FALSE(fs::exists(target / kStaging));

    // A bundle is replaced as a whole, even by way of a folder without write permission; a folder that is
    // none is shared.
    writeFile(target / "Library/Application Support/NorvikEmu/mine", "mine");
    fs::create_directories(target / "Applications/Other.app");
    expectSuccess(install(makePackage(makePayload({file("Applications/Pellomar.app/run", "new"),
                                                   file("Library/Application Support/NorvikEmu/late")}))));
    tree = snapshot(target);
    EXPECT_EQ(tree["Applications/Pellomar.app/run"], "100644 new");
    EXPECT_EQ(tree.count("Applications/Pellomar.app/游戏数据.bin"), 0U);
    EXPECT_EQ(tree.count("Applications/Other.app"), 1U);
    for (const char* name : {"mine", "late", "VirtualBoxStartup.sh"}) {
        EXPECT_EQ(tree.count(std::string("Library/Application Support/NorvikEmu/") + name), 1U) << name;
    }
}

TEST_F(Installer, ReadsEveryCompressionAndPutsThePayloadAtTheInstallLocation) {
    const std::string info = "<pkg-info identifier='a' version='1' install-location='/Applications/游戏'/>";
    std::string noise; // large enough for decoders to take input for a while without giving any output
    std::mt19937 random(1);
    while (noise.size() < 2'000'000) {
        noise += static_cast<char>(random());
    }
    const std::string payload = makePayload({folder("."), file("./data", noise)});
    for (const char* compression : {"none", "gzip", "bzip2", "xz"}) {
        SCOPED_TRACE(compression);
        fs::remove_all(target / "Applications");
        const Outcome outcome =
            install(makeXar({file("PackageInfo", info), file("Payload", payload)}, compression));
        EXPECT_EQ(outcome.status, 0) << outcome.output;
        EXPECT_TRUE(readFile(target / "Applications/游戏/data") == noise);
    }
}

TEST_F(Installer, RefusesHostileAndBrokenPackages) {
    const std::string good = makePackage(makePayload({file("a/b")}));
    const auto payload = [](std::vector<Entry> entries) {
        entries.insert(entries.begin(), file("first")); // would betray writing before checking
        return makePackage(makePayload(entries));
    };
    const auto info = [](const std::string& xml) { return makePackage(makePayload({file("a")}), xml); };
    const auto gz = makePayload({file("a", std::string(100'000, 'a'))});
    const struct {
        const char* name;
        std::string package;
        const char* cause;
    } rows[] = {
        {"absolute", payload({file((outside / "kept").string(), "x")}), "absolute path"},
        {"climbing", payload({file("../outside/kept", "x")}), "with \"..\""},
        {"climbing inside", payload({file("./a/../../outside/kept", "x")}), "with \"..\""},
        {"climbing folder", payload({folder("a"), folder("a/..")}), "with \"..\""},
        {"line feed in the name", payload({file("/\ninstaller: Error - x")}), "absolute path"},
        {"through its own link", payload({symbolicLink("way", "../outside"), file("way/kept", "x")}),
         "link or file"},
        {"through its own deep link", payload({symbolicLink("w", "/"), file("w/a/b/kept", "x")}),
         "link or file"},
        {"through its own file", payload({file("a"), file("a/b")}), "link or file"},
        {"link, then a file in its place", payload({symbolicLink("a", "../outside/kept"), file("./a", "x")}),
         "two entries of one name"},
        {"link, then a folder in its place", payload({symbolicLink("a", "../outside"), folder("a/")}),
         "two entries"},
        {"top entry is a link", payload({symbolicLink("./", "../outside")}), "top entry is not a folder"},
        {"set-user-id", payload({file("a", "x", 04755)}), "set-id"},
        {"set-group-id folder", payload({folder("a", 02755)}), "set-id"},
        {"character device", payload({{"a", S_IFCHR | 0666}}), "special file"},
        {"block device", payload({{"a", S_IFBLK | 0666}}), "special file"},
        {"pipe", payload({{"a", S_IFIFO | 0666}}), "special file"},
        {"hard link", payload({{"a", S_IFREG | 0644, "x", "b"}, {"b", S_IFREG | 0644, "x", "a"}}),
         "hard link"},
        {"payload is not gzip", makePackage("plainly no archive"), "payload is damaged"},
        {"payload is a tar", makePackage(makePayload({file("a")}, "ustar")), "payload is damaged"},
        {"payload without its end", makePackage(gz.substr(0, gz.size() / 2)), "payload is damaged"},
        {"payload of nothing", makePackage(makePayload({folder(".")})), "holds nothing"},
        {"payload empty", makePackage(""), "empty \"Payload\""},
        {"no payload", makeXar({file("PackageInfo", kPackageInfo)}), "no Payload"},
        {"payload is a folder", makeXar({file("PackageInfo", kPackageInfo), folder("Payload")}),
         "no Payload"},
        {"no PackageInfo", makeXar({file("Payload", gz)}), "no PackageInfo"},
        {"scripts damaged",
         makeXar({file("PackageInfo", kPackageInfo), file("Scripts"), file("Payload", gz)}), "damaged"},
        {"script that is no program", makePackage(gz, kPackageInfo, {file("preinstall", "x", 0644)}),
         "not a program"},
        {"script that is a link", makePackage(gz, kPackageInfo, {symbolicLink("preinstall", "/bin/true")}),
         "not a program"},
        {"scripts that climb", makePackage(gz, kPackageInfo, {file("../preinstall", "x", 0755)}),
         "with \"..\""},
        {"in the way of the installer", payload({file(kStaging + "/new/x")}), "where installs are prepared"},
        {"absurdly deep", payload({file(std::string(1200, '/').replace(0, 1, "a") + "b")}), "too long"},
        {"far larger than it states",
         makePackage(makePayload({file("zeros", std::string(4'000'000, '\0'))}),
                     "<pkg-info identifier='a' version='1'><payload installKBytes='1'/></pkg-info>"),
         "larger than it states"},
        {"states more than there is room for",
         info("<pkg-info identifier='a' version='1'><payload installKBytes='999999999999'/></pkg-info>"),
         "not enough free space"},
        {"info cut", info("<pkg-info identifier='a'"), "not well-formed"},
        {"info of another kind", info("<installer-gui-script/>"), "describes no package"},
        {"info without identifier", info("<pkg-info version='1'/>"), "identifier"},
        {"info without version", info("<pkg-info identifier='a'/>"), "version"},
        {"info with a document type", info("<!DOCTYPE p [<!ENTITY e 'x'>]><pkg-info version='&e;'/>"),
         "document type"},
        {"info leads away", info("<pkg-info identifier='a' version='1' install-location='/../outside'/>"),
         "with \"..\""},
        {"info too large", info(kPackageInfo + std::string(2'000'000, ' ')), "too large"},
        {"empty file", "", "not a package"},
        {"error page", "<html>404 Not Found</html>", "not a package"},
        {"header only", good.substr(0, 28), "not a package"},
        {"table cut", good.substr(0, 100), "breaks off in its table"},
    };
    const auto before = snapshot(world);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        expectOneErrorLine(install(row.package), row.cause);
        EXPECT_EQ(snapshot(world), before);
    }
}

TEST_F(Installer, NeverWritesThroughWhatTheTargetHolds) {
    const struct {
        const char* name;
        std::function<void(const fs::path&)> prepare;
        Entry entry;
        const char* cause;
    } rows[] = {
        {"link for a parent", [](const fs::path& t) { fs::create_symlink("../outside", t / "a"); },
         file("a/kept", "x"), "symbolic link in place of a folder"},
        {"link for a folder", [](const fs::path& t) { fs::create_symlink("../outside", t / "a"); },
         folder("a"), "symbolic link in place of a folder"},
        {"file for a folder", [](const fs::path& t) { writeFile(t / "a", "mine"); }, file("a/b"),
         "file in place of a folder"},
        {"folder for a file", [](const fs::path& t) { fs::create_directory(t / "a"); }, file("a"),
         "folder in place of a file"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        row.prepare(target);
        const auto before = snapshot(world);
        expectOneErrorLine(install(makePackage(makePayload({row.entry}))), row.cause);
        EXPECT_EQ(snapshot(world), before);
        fs::remove_all(target / "a");
    }
    fs::create_symlink("../outside/kept", target / "a");
    EXPECT_EQ(install(makePackage(makePayload({file("a", "new")}))).status, 0);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(target / "a")));
    EXPECT_EQ(readFile(outside / "kept"), "kept");
}

// Whatever single byte is wrong, and wherever the file breaks off: either the right tree, or nothing and a
// line.
TEST_F(Installer, InstallsNothingFromADamagedFile) {
    const std::string good = makeXar(
        {file("PackageInfo", kPackageInfo),
         file("Payload", makePayload({folder("a"), file("a/b", "words that stay words")}) + "not part of it"),
         file("Bom", "of no use, and damaged all the same")});
    ASSERT_EQ(install(good).status, 0);
    const auto right = snapshot(target);
    const auto check = [&](const std::string& package) {
        fs::remove_all(target);
        fs::create_directory(target);
        const Outcome outcome = install(package);
        if (saysFailure(outcome.output)) {
            expectOneErrorLine(outcome, "");
            EXPECT_TRUE(snapshot(target).empty());
            return false;
        }
        EXPECT_EQ(snapshot(target), right);
        return true;
    };
    for (const char* text : {"not part of it", "damaged all"}) {
        SCOPED_TRACE(text);
        std::string flipped = good;
        flipped[flipped.find(text)] = 'N';
        EXPECT_FALSE(check(flipped));
    }
    int installed = 0;
    int tried = 0;
    for (std::size_t at = 0; at < good.size(); at += 11, ++tried) {
        SCOPED_TRACE("byte " + std::to_string(at));
        std::string flipped = good;
        flipped[at] = static_cast<char>(flipped[at] ^ 0x20);
        installed += check(flipped) ? 1 : 0;
    }
    EXPECT_LT(installed * 10, tried) << "most of a package is under a checksum";
    for (std::size_t size = 30; size < good.find("damaged all"); size += 97) {
        SCOPED_TRACE("cut at " + std::to_string(size));
        EXPECT_FALSE(check(good.substr(0, size)));
    }
}

TEST_F(Installer, SaysWhatIsWrongWithItsArguments) {
    const std::string program = INSTALLER_PROGRAM;
    writeFile(packagePath, makePackage(makePayload({file("a")})));
    const std::string pipe = scratch / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const struct {
        std::vector<std::string> arguments;
        const char* cause;
    } rows[] = {
        {{}, "are needed"},
        {{"-pkg", packagePath}, "are needed"},
        {{"-target", target}, "are needed"},
        {{"-pkg", packagePath, "-target"}, "lacks its value"},
        {{"-pkg", packagePath, "-target", target, "-x"}, "unknown argument"},
        {{"-pkg", scratch / "absent", "-target", target}, "cannot be opened"},
        {{"-pkg", target, "-target", target}, "not a regular file"},
        {{"-pkg", pipe, "-target", target}, "not a regular file"},
        {{"-pkg", packagePath, "-target", world / "absent"}, "target cannot be examined"},
        {{"-pkg", packagePath, "-target", packagePath}, "target is not a folder"},
    };
    for (const auto& row : rows) {
        std::vector<std::string> command = row.arguments;
        command.insert(command.begin(), program);
        expectOneErrorLine(run(command), row.cause);
    }
    EXPECT_TRUE(snapshot(target).empty());
    const Outcome help = run({program, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("-target DIR"), std::string::npos);
}

TEST_F(Installer, ReportsAFullDisk) {
    const std::vector<std::string> space = {"unshare", geteuid() == 0 ? "-m" : "-Urm", "bash", "-c"};
    const auto installOn = [&](const std::string& options) {
        std::vector<std::string> command = space;
        command.push_back("mount -t tmpfs -o \"$1\" none \"$2\" && exec \"$3\" -pkg \"$4\" -target \"$2\"");
        command.insert(command.end(), {"bash", options, target, INSTALLER_PROGRAM, packagePath});
        return run(command);
    };
    std::vector<std::string> trial = space;
    trial.push_back("mount -t tmpfs none \"$1\"");
    trial.insert(trial.end(), {"bash", target});
    if (run(trial).status != 0) {
        GTEST_SKIP() << "no mount namespaces here";
    }

    // A payload of zeros is tiny in the package and large on disk.
    writeFile(packagePath,
              makePackage(makePayload({file("zeros", std::string(3'000'000, '\0')), file("b")})));
    expectOneErrorLine(installOn("size=1m"), "not enough free space");
    // Room by the count of bytes, none by the count of files.
    expectOneErrorLine(installOn("size=8m,nr_inodes=2"), "No space left on device");
    EXPECT_EQ(installOn("size=8m").status, 0);
}

// A tool that dies in silence passes for a success.
TEST_F(Installer, ReportsBeingStopped) {
    writeFile(packagePath, makePackage(makePayload({file("a")})));
    const std::string firstLine = "installer: Checking the package\n";
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    // Room for the first line only, so that the program has to wait at its second.
    const int capacity = fcntl(ends[1], F_SETPIPE_SZ, 4096);
    ASSERT_EQ(capacity, 4096);
    const std::string filler(static_cast<std::size_t>(capacity) - firstLine.size(), '.');
    ASSERT_EQ(write(ends[1], filler.data(), filler.size()), static_cast<ssize_t>(filler.size()));
    const pid_t process =
        start({INSTALLER_PROGRAM, "-pkg", packagePath, "-target", target}, ends[1], STDERR_FILENO);
    close(ends[1]);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (int waiting = 0; waiting < capacity && std::chrono::steady_clock::now() < deadline;) {
        ASSERT_EQ(ioctl(ends[0], FIONREAD, &waiting), 0);
        std::this_thread::yield();
    }
    kill(process, SIGTERM);
    std::string output;
    char block[4096];
    for (ssize_t got = 0; (got = read(ends[0], block, sizeof block)) > 0;) {
        output.append(block, static_cast<std::size_t>(got));
    }
    close(ends[0]);
    expectOneErrorLine({output, "", waitFor(process)}, "stopped by a signal");
}

} // namespace
