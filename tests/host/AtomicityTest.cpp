// All or nothing, whatever happens in between.
#include "Fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

namespace {

using Snapshot = std::map<std::string, std::string>;

// A script that cannot find its way out of the test.
Entry script(const std::string& name, const std::string& text) {
    return file(name, "#!/bin/sh\n" + text + "\n", 0755);
}

// A target with an old version, something of other owners, and shared folders; and a package that replaces,
// adds and merges.
class Atomicity : public Installer {
  protected:
    Atomicity() {
        makeOld();
        before = snapshot(world);
    }

    void makeOld() const {
        fs::remove_all(target);
        fs::create_directories(target / "Applications/Pellomar.app/Old/Deep");
        fs::create_directories(target / "Library/Shared");
        writeFile(target / "Applications/Pellomar.app/Old/Deep/file", "old");
        writeFile(target / "Applications/Pellomar.app/run", "old");
        fs::permissions(target / "Applications/Pellomar.app/Old", fs::perms(0711));
        writeFile(target / "Library/Shared/theirs", "theirs");
        writeFile(target / "Library/Shared/ours", "old");
        fs::create_symlink("theirs", target / "Library/Shared/link");
    }

    std::string package(const std::vector<Entry>& scripts = {}) const {
        return makePackage(makePayload({file("Applications/Pellomar.app/run", "new"),
                                        file("Applications/New.app/run", "new"),
                                        file("Library/Shared/ours", "new"), file("Library/Shared/added"),
                                        symbolicLink("Library/Shared/link", "ours"), file("top")}),
                           kPackageInfo, scripts);
    }

    void expectNew() const {
        auto after = snapshot(target);
        EXPECT_EQ(after["Applications/Pellomar.app/run"], "100644 new");
        EXPECT_EQ(after["Library/Shared/ours"], "100644 new");
        EXPECT_EQ(after["Library/Shared/theirs"], "100644 theirs");
        EXPECT_EQ(after["Library/Shared/link"], "120777 ours");
        EXPECT_EQ(after.count("Applications/Pellomar.app/Old"), 0U);
        EXPECT_EQ(after.count("top") + after.count("Applications/New.app/run"), 2U);
        EXPECT_EQ(after.count(kStaging), 0U);
    }

    // Any later run, even one that fails, cleans up after one that was killed; once that is quite dead.
    void cleanUp() const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        Outcome outcome;
        do {
            outcome = run({INSTALLER_PROGRAM, "-pkg", scratch / "absent", "-target", target});
        } while (outcome.output.find("under way") != std::string::npos &&
                 std::chrono::steady_clock::now() < deadline);
        expectOneErrorLine(outcome, "opened");
    }

    // Runs the installer, with a fault in the `step`th call of that name in each of its processes.
    Outcome traced(const std::string& call, const std::string& fault, int step) const {
        std::vector<std::string> program = command();
        // A leak checker that is built in does not work under a tracer.
        program.insert(program.begin(), {"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "-f", "-o",
                                         "/dev/null", "-e", "trace=" + call, "-e",
                                         "inject=" + call + ":" + fault + ":when=" + std::to_string(step)});
        return run(program);
    }

    static bool canTrace() { return run({"strace", "-f", "-o", "/dev/null", "true"}).status == 0; }

    Snapshot before;
};

TEST_F(Atomicity, ReplacesMergesAndAdds) {
    expectSuccess(install(package()));
    expectNew();
}

TEST_F(Atomicity, ScriptsRunInPrivateAndTheirWordsStayAway) {
    const std::string report = outside / "report";
    const std::string tell =
        "{ pwd; stat -c %a .; env; echo \"$@\"; } > '" + report + "'; echo Error; echo invalid >&2";
    setenv("SECRET", "leaked", 1);
    const Outcome outcome =
        install(package({script("preinstall", tell), script("postinstall", "cat helper >> '" + report + "'"),
                         file("helper", "helped")}));
    unsetenv("SECRET");
    expectSuccess(outcome);
    EXPECT_NE(outcome.errors.find("Error"), std::string::npos);
    const std::string told = readFile(report);
    EXPECT_EQ(told.find("leaked"), std::string::npos);
    EXPECT_NE(told.find("\n700\n"), std::string::npos) << told;
    EXPECT_NE(told.find("PATH=/usr/sbin:/usr/bin:/sbin:/bin\n"), std::string::npos) << told;
    EXPECT_NE(told.find(packagePath.string() + " " + target.string() + "/ " + target.string() + " /\n"),
              std::string::npos)
        << told;
    EXPECT_NE(told.find("helped"), std::string::npos) << told;
    fs::remove(report);
    expectNew();
}

TEST_F(Atomicity, PutsEverythingBackWhenAScriptOrAProcessFails) {
    const std::string grandparent = "$(cut -d ' ' -f 4 /proc/$PPID/stat)";
    const std::string checkNew = "test -e '" + (target / "top").string() + "' || exit 9; ";
    const struct {
        const char* name;
        Entry script;
        const char* cause; // empty: both processes are killed, and the next run puts things right
    } rows[] = {
        {"preinstall fails", script("preinstall", "exit 3"), "preinstall script failed with status 3"},
        {"postinstall fails", script("postinstall", checkNew + "exit 3"),
         "postinstall script failed with status 3"},
        {"postinstall is killed", script("postinstall", checkNew + "kill -9 $$"), "ended by signal 9"},
        {"script without an interpreter", file("preinstall", "#!/absent\n", 0755), "status 127"},
        {"worker killed before", script("preinstall", "kill -9 $PPID; sleep 9"),
         "worker was ended by signal 9"},
        {"worker killed after", script("postinstall", checkNew + "kill -9 $PPID; sleep 9"),
         "worker was ended by signal 9"},
        {"worker told to end", script("postinstall", checkNew + "kill -15 $PPID; sleep 9"),
         "worker was ended by signal 15"},
        {"parent told to end", script("postinstall", checkNew + "kill -15 " + grandparent + "; sleep 9"),
         "stopped by a signal"},
        {"both killed before", script("preinstall", "kill -9 " + grandparent + " $PPID; sleep 9"), ""},
        {"both killed after", script("postinstall", checkNew + "kill -9 " + grandparent + " $PPID; sleep 9"),
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Outcome outcome = install(package({row.script}));
        if (*row.cause) {
            expectOneErrorLine(outcome, row.cause);
        } else {
            EXPECT_EQ(outcome.status, 128 + SIGKILL);
            cleanUp();
        }
        EXPECT_EQ(snapshot(world), before);
    }
}

TEST_F(Atomicity, TheWorkerSpeaksForASupervisorThatWasKilled) {
    writeFile(packagePath,
              package({script("preinstall", "kill -9 $(cut -d ' ' -f 4 /proc/$PPID/stat); sleep 9")}));
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t process = start(command(), ends[1], STDERR_FILENO);
    close(ends[1]);
    EXPECT_EQ(waitFor(process), 128 + SIGKILL);
    std::string output;
    char block[4096];
    for (ssize_t got = 0; (got = read(ends[0], block, sizeof block)) > 0;) {
        output.append(block, static_cast<std::size_t>(got));
    }
    close(ends[0]);
    expectOneErrorLine({output, "", 1}, "supervising process was killed");
    cleanUp();
    EXPECT_EQ(snapshot(world), before);
}

// The swap takes nine moves, each of which is once the last, or fails in its own way.
TEST_F(Atomicity, SurvivesAFaultAtEachStepOfTheSwap) {
    constexpr int kMoves = 9;
    if (!canTrace()) {
        GTEST_SKIP() << "no strace, or no permission to trace";
    }
    writeFile(packagePath, package());
    for (const std::string fault : {"signal=KILL", "error=EIO", "error=EXDEV", "error=EINVAL"}) {
        for (int step = 1; step <= kMoves + 1; ++step) {
            SCOPED_TRACE(fault + " at move " + std::to_string(step));
            makeOld();
            const Outcome outcome = traced("renameat2", fault, step);
            // A folder goes piece by piece where it cannot go whole; without the flag, there is a check.
            const bool isFolder = step == 1 || step == 2 || step == 3;
            const bool passes =
                step > kMoves || fault == "error=EINVAL" || (fault == "error=EXDEV" && isFolder);
            ASSERT_EQ(outcome.status == 0, passes) << outcome.output;
            if (passes) {
                expectNew();
                continue;
            }
            cleanUp();
            ASSERT_EQ(snapshot(world), before);
        }
    }
}

// Cleaning up can be cut short as well, and must not take back what counts, or leave what does not.
TEST_F(Atomicity, SurvivesAKillAtEachStepOfTheCleaning) {
    if (!canTrace()) {
        GTEST_SKIP() << "no strace, or no permission to trace";
    }
    for (const bool counts : {true, false}) {
        writeFile(packagePath, package({script("postinstall", counts ? "exit 0" : "exit 3")}));
        bool killed = true;
        for (int step = 1; killed; ++step) {
            SCOPED_TRACE("removal " + std::to_string(step) + (counts ? ", new" : ", old"));
            ASSERT_LT(step, 60);
            makeOld();
            killed = traced("unlinkat", "signal=KILL", step).status == 128 + SIGKILL;
            const bool begun = fs::exists(target / "top"); // some removals come before there is anything
            cleanUp();
            if (counts && begun) {
                expectNew();
            } else {
                EXPECT_EQ(snapshot(world), before);
            }
            ASSERT_FALSE(HasFailure());
        }
    }
}

// In an overlay, a folder of the lower layer cannot be renamed.
TEST_F(Atomicity, HandlesAnOverlay) {
    constexpr char kScript[] = R"(
        set -e
        cd "$1"
        mkdir result layers
        mount -t tmpfs none layers
        mkdir layers/upper layers/work layers/merged
        mount -t overlay -o "lowerdir=$2,upperdir=layers/upper,workdir=layers/work,redirect_dir=off" overlay layers/merged
        shift 2
        "$@" -target "$PWD/layers/merged" || true
        cp -a layers/merged/. result
        )";
    const auto installOnOverlay = [&](const std::string& content) {
        writeFile(packagePath, content);
        fs::remove_all(scratch / "result");
        fs::remove_all(scratch / "layers");
        return run({"unshare", geteuid() == 0 ? "-m" : "-Urm", "bash", "-c", kScript, "bash", scratch.path(),
                    target, INSTALLER_PROGRAM, "-trusted", trusted, "-pkg", packagePath});
    };
    const Outcome refused = installOnOverlay(package({script("postinstall", "exit 3")}));
    if (refused.output.empty()) {
        GTEST_SKIP() << "no overlay here: " << refused.errors;
    }
    expectOneErrorLine({refused.output, "", 1}, "status 3");
    EXPECT_EQ(snapshot(scratch / "result"), snapshot(target));

    const Outcome outcome = installOnOverlay(package());
    expectSuccess(outcome);
    makeOld();
    fs::remove_all(target);
    fs::rename(scratch / "result", target);
    expectNew();
}

TEST_F(Atomicity, OneInstallAtATimeAndOnlyInAFolderOfItsOwn) {
    const std::string pipe = scratch / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    writeFile(packagePath, package({script("preinstall", "echo here > '" + pipe + "'; cat '" + pipe + "'")}));
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t first = start(command(), nowhere, nowhere);
    close(nowhere);
    EXPECT_EQ(readFile(pipe), "here\n"); // the first is in the middle of it
    expectOneErrorLine(run(command()), "another install is under way");
    writeFile(pipe, "go on");
    EXPECT_EQ(waitFor(first), 0);
    expectNew();

    fs::create_directory(target / kStaging);
    fs::permissions(target / kStaging, fs::perms(0755));
    expectOneErrorLine(install(package()), "somebody else's");
    fs::remove(target / kStaging);
    fs::create_symlink(outside, target / kStaging);
    expectOneErrorLine(install(package()), "cannot open the folder");
    EXPECT_EQ(readFile(outside / "kept"), "kept");
}

} // namespace
