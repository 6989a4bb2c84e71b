#include "pipeline/Stage.h"

#include "BuildConstants.h"
#include "pipeline/Trace.h"
#include "platform/ChildProcess.h"
#include "platform/FileDescriptor.h"
#include "platform/FileManager.h"
#include "support/WaitUntil.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

const fs::path kFolder = trace::kFolder;
const fs::path kSupport = "/tmp/pipeline-support"; // stays from run to run
const fs::path kApplication = "/Applications/Pellomar.app";
const fs::path kSystemVersionFile = "/System/Library/CoreServices/SystemVersion.plist";
constexpr char kDisplay[] = ":77";
constexpr char kDisplaySocket[] = "/tmp/.X11-unix/X77";
constexpr uid_t kNobody = 65534;

void writeFile(const fs::path& path, const std::string& content, bool executable = false) {
    fs::create_directories(path.parent_path());
    fs::remove_all(path); // never through a link
    std::ofstream(path) << content;
    fs::permissions(path, executable ? fs::perms(0755) : fs::perms(0644));
}

std::string plist(const std::string& key, const std::string& value) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n<key>" + key +
           "</key>\n<string>" + value + "</string>\n</dict>\n</plist>\n";
}

struct ToolFile {
    std::string path;
    std::string place; // "opened" where nobody waits for it
    std::string work;
};

const std::map<std::string, ToolFile>& toolFiles() {
    static const std::map<std::string, ToolFile> files{
        {"killall", {"/usr/bin/killall", trace::kFile, "true"}},
        {"rm", {"/bin/rm", trace::kFile, "exec " + (kSupport / "rm").string() + " \"$@\""}},
        {"installer",
         {"/usr/sbin/installer", trace::kFile,
          "mkdir -p /Applications && cp -r " + (kSupport / "Pellomar.app").string() +
              " /Applications && echo 'installer: The install was successful.'"}},
        {"kextstat",
         {"/usr/sbin/kextstat", trace::kFile,
          "echo 'Index Refs Name'; echo '  120    3 com.norvik.emu.kext.VBoxDrv (5.2.0)'"}},
        {"VirtualBoxStartup.sh",
         {"/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh", trace::kFile, "echo 'Started.'"}},
        {"xdg-open", {"/usr/bin/xdg-open", trace::kOpenedFile, "true"}},
    };
    return files;
}

std::string script(const std::string& name, const ToolFile& file, const Tool& tool) {
    const std::string count = (kFolder / ("calls-" + name)).string();
    std::string text = "#!/bin/bash\nIFS='|'\n";
    text += "[[ $EUID == 0 ]] && who=root || who=user\n";
    text += "echo \"$who runs $0|$*\" >>" + file.place + "\n";
    text += "IFS=' '\n";
    if (name == "installer") {
        text +=
            "echo \"the package holds: $(<\"$2\"), its folder: $(ls -m \"${2%/*}\")\" >>" + file.place + "\n";
    }
    text += "echo call >>" + count + "\ncase $(wc -l <" + count + ") in\n";
    for (std::size_t call = 0; call < tool.size(); ++call) {
        text += (call + 1 == tool.size() ? "*" : std::to_string(call + 1)) + ")\n" + tool[call] + "\n;;\n";
    }
    return text + "esac\n";
}

void placeTools(const Machine& machine) {
    for (const auto& [name, file] : toolFiles()) {
        const auto found = machine.tools.find(name);
        const Tool tool = found == machine.tools.end() ? Tool{file.work} : found->second;
        fs::remove_all(file.path);
        if (!tool.empty()) {
            writeFile(file.path, script(name, file, tool), true);
        }
    }
}

void placeOldCopy(Machine::OldCopy oldCopy) {
    fs::remove_all(kApplication);
    if (oldCopy == Machine::OldCopy::Folder) {
        fs::create_directories(kApplication.parent_path());
        fs::copy(kSupport / "Pellomar.app", kApplication, fs::copy_options::recursive);
        writeFile(kApplication / "of-the-old-copy", "");
    } else if (oldCopy == Machine::OldCopy::PlainFile) {
        writeFile(kApplication, "not a bundle");
    }
}

fs::path placeHome(const Machine& machine) {
    fs::path home = kFolder / machine.home;
    fs::create_directories(home);
    for (const std::string& file : machine.homeFiles) {
        writeFile(home / file, "stale");
    }
    writeFile(trace::kFile, "");
    writeFile(trace::kOpenedFile, "");
    for (const fs::path& path : {home, fs::path(trace::kFile), fs::path(trace::kOpenedFile)}) {
        fs::permissions(path, fs::perms(0777));
    }
    return home;
}

void setMachine(const Machine& machine) {
    placeTools(machine);
    placeOldCopy(machine.oldCopy);
    fs::remove_all(kSystemVersionFile);
    if (!machine.systemVersion.empty()) {
        writeFile(kSystemVersionFile, plist("ProductVersion", machine.systemVersion));
    }
}

pid_t start(const ChildProcess& program) {
    std::error_code failure;
    const pid_t pid = program.start(failure);
    if (failure) {
        throw std::system_error(failure, program.path);
    }
    return pid;
}

// Every program that lost its parent is ours to wait for, so that nothing of a run is missed.
std::string awaitAll(pid_t driver) {
    std::string ended = "not at all";
    const auto allEnded = [&] {
        int status = 0;
        pid_t pid = 0;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
            if (pid == driver) {
                ended = WIFEXITED(status) ? "with status " + std::to_string(WEXITSTATUS(status))
                                          : "by signal " + std::to_string(WTERMSIG(status));
            }
        }
        return pid < 0 && errno == ECHILD;
    };
    if (!waitUntil(allEnded, std::chrono::seconds(60))) {
        kill(driver, SIGKILL);
        waitUntil(allEnded);
    }
    return ended;
}

std::string contentOf(const fs::path& path, const std::string& home) {
    std::string text = readFile(path.string()).value_or("");
    for (std::size_t at = text.find(home); at != std::string::npos; at = text.find(home)) {
        text.replace(at, home.size(), "~");
    }
    return text;
}

std::vector<std::string> linesOf(const fs::path& path, const std::string& home) {
    std::istringstream stream(contentOf(path, home));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// A user who is not root must be able to read what lies with the sources, wherever they are.
void openTheWayTo(const fs::path& folder) {
    for (fs::path path = folder; path.has_relative_path(); path = path.parent_path()) {
        std::error_code ignored;
        fs::permissions(path, fs::perms::others_exec, fs::perm_options::add, ignored);
    }
}

// The program as it is shipped: a bundle with its pictures, and beside it the file that names the package.
// In a folder that everybody can enter, whatever holds the build.
void makeBundle() {
    const fs::path contents = kSupport / "Downloader.app/Contents";
    fs::create_directories(contents / "MacOS");
    fs::copy_file(PIPELINE_DRIVER, contents / "MacOS/pipeline_driver");
    fs::copy(BUNDLE_RESOURCES, contents / "Resources", fs::copy_options::recursive);
    writeFile(kSupport / ".config", "package");
}

void makeProduct() {
    const fs::path product = kSupport / "Pellomar.app";
    writeFile(product / "Contents/Info.plist", plist("CFBundleExecutable", "Pellomar"));
    writeFile(
        product / "Contents/MacOS/Pellomar",
        std::string("#!/bin/bash\nage=new\n[[ ! -e ${0%/Contents/*}/of-the-old-copy ]] || age=mixed\n") +
            "echo \"$age Pellomar runs in $PWD\" >>" + trace::kOpenedFile + "\n",
        true);
}

void startServer() {
    writeFile(kSupport / "documents/soft/package", "a package");
    ChildProcess server;
    server.path = PROJECT_FOLDER "/sample/serve";
    server.arguments = {"--background",
                        "--listen",
                        constants::kDownloadHost,
                        "--rate",
                        "0",
                        (kSupport / "documents").string(),
                        (kSupport / "server").string()};
    waitUntilExit(start(server));
}

bool isDisplayUp() {
    const FileDescriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(kDisplaySocket).copy(address.sun_path, sizeof address.sun_path - 1);
    return connect(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void startDisplay() {
    ChildProcess display;
    display.path = "Xvfb";
    display.arguments = {kDisplay, "-screen", "0", "1280x1024x24", "-ac", "-nolisten", "tcp"};
    display.standardOutput = ChildProcess::kNull;
    display.standardError = ChildProcess::kNull;
    if (const std::error_code failure = display.startDetached()) {
        throw std::system_error(failure, display.path);
    }
    if (!waitUntil(isDisplayUp)) {
        throw std::runtime_error("Xvfb does not come up");
    }
}

} // namespace

bool Stage::isInThrowAwayView() {
    // The first process of a view is its builder; that of a machine or a container is not.
    return readFile("/proc/1/cmdline").value_or("").find("view-init") != std::string::npos;
}

Stage::Stage() {
    fs::create_directories(kSupport);
    fs::copy_file("/bin/rm", kSupport / "rm");
    openTheWayTo(PROJECT_FOLDER);
    makeBundle();
    makeProduct();
    startServer();
    startDisplay();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

Outcome Stage::run(const Machine& machine, const std::vector<std::string>& actions) {
    fs::remove_all(kFolder);
    const fs::path home = placeHome(machine);
    setMachine(machine);

    const fs::path output = kFolder / "output";
    const FileDescriptor stream(open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    ChildProcess driver;
    driver.path = (kSupport / "Downloader.app/Contents/MacOS/pipeline_driver").string();
    driver.arguments = {"press start_button"};
    driver.arguments.insert(driver.arguments.end(), actions.begin(), actions.end());
    driver.environment = {"HOME=" + home.string(), std::string("DISPLAY=") + kDisplay,
                          "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "QT_QPA_PLATFORM=xcb"};
    for (const char* const name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        if (const char* const value = std::getenv(name)) {
            driver.environment->push_back(std::string(name) + "=" + value);
        }
    }
    driver.workingFolder = "/";
    driver.standardInput = ChildProcess::kNull;
    driver.standardOutput = stream.get();
    driver.standardError = stream.get();
    if (machine.asNobody) {
        const std::string id = std::to_string(kNobody);
        driver.arguments.insert(driver.arguments.begin(),
                                {"--reuid", id, "--regid", id, "--clear-groups", "--", driver.path});
        driver.path = "setpriv";
    }

    Outcome outcome;
    outcome.ended = awaitAll(start(driver));
    outcome.trace = linesOf(trace::kFile, home.string());
    outcome.opened = linesOf(trace::kOpenedFile, home.string());
    outcome.printed = contentOf(output, home.string());
    const fs::path documents = home / "Documents";
    if (fs::exists(documents)) {
        for (const auto& log : fs::directory_iterator(documents)) {
            outcome.printed += contentOf(log.path(), home.string());
        }
    }
    const fs::path flag = home / "Library/Application Support/PellomarData/CoverInstallFlag";
    outcome.flag = fs::exists(flag) ? "present" : "absent";
    return outcome;
}
