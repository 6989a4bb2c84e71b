// Installs a flat package, completely or not at all.
#include "base/StandardDescriptors.h"
#include "host/installer/Install.h"
#include "host/installer/Output.h"
#include "host/installer/PackageFile.h"
#include "host/installer/Receipt.h"
#include "host/installer/Staging.h"
#include "host/installer/Supervisor.h"
#include "host/installer/Tree.h"
#include "host/package/Failure.h"
#include "host/package/Memory.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <optional>
#include <string>
#include <string_view>

namespace {

using installer::Request;
using package::Failure;
using package::FailureKind;

constexpr char kUsage[] =
    "Usage: installer -pkg FILE -target DIR [-trusted DIR]\n"
    "       installer -receipts [-target DIR]\n"
    "\n"
    "Installs the flat package FILE into the folder DIR, completely or not at all. Progress and the outcome\n"
    "go to standard output. The exit status is 0 only after a complete install; installer(8) lists the "
    "others.\n"
    "\n"
    "  -pkg FILE     the package: a xar archive that holds PackageInfo, Payload and optionally Scripts\n"
    "  -target DIR   the folder to install into, / for this machine\n"
    "  -trusted DIR  a folder of trusted certificates in PEM form and pinned keys, instead of the usual "
    "two,\n"
    "                /usr/lib/pellomar-installer/trusted and /etc/pellomar-installer/trusted; see "
    "installer(8)\n"
    "  -receipts     list what is installed: identifier, version, time and the signer's fingerprint\n"
    "  --help        show this text\n"
    "\n"
    "If the environment variable INSTALLER_PACKAGE_USER is the number of a user, FILE must be that user's "
    "own\n"
    "file, and is opened with that user's rights.\n";

void prepareProcess() {
    occupyStandardDescriptors();
    // What the caller passed on is for this program, not for the package's scripts.
    close_range(STDERR_FILENO + 1, UINT_MAX, CLOSE_RANGE_CLOEXEC);
    std::setlocale(LC_CTYPE, "C.UTF-8"); // names in the archive are UTF-8
    umask(S_IWGRP | S_IWOTH);
    std::signal(SIGPIPE, SIG_IGN); // a caller that stopped reading still wants a complete install
    std::signal(SIGXFSZ, SIG_IGN); // so that the write fails and is reported
    std::signal(SIGCHLD, SIG_DFL); // ignored, as by some callers, no child's status would be kept
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) { // deep trees need many
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    installer::reportWhenStopped();
}

struct Arguments : Request {
    std::string package;
    bool isList = false; // of receipts
};

Arguments parse(int argc, char** argv) {
    Arguments arguments;
    arguments.isSignatureDemanded = DEMANDS_SIGNATURE;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "-receipts") {
            arguments.isList = true;
            continue;
        }
        std::string* value = argument == "-pkg"       ? &arguments.package
                             : argument == "-target"  ? &arguments.target
                             : argument == "-trusted" ? &arguments.trusted
                                                      : nullptr;
        if (value == nullptr) {
            throw Failure("unknown argument; see installer --help", FailureKind::Usage);
        }
        if (i + 1 == argc) {
            throw Failure("an argument lacks its value; see installer --help", FailureKind::Usage);
        }
        *value = argv[++i];
    }
    // Only the usual folders may be missing.
    if (!arguments.trusted.empty() && !std::filesystem::is_directory(arguments.trusted)) {
        throw Failure("-trusted names no folder", FailureKind::Usage);
    }
    if (arguments.isList) {
        return arguments;
    }
    if (arguments.package.empty() || arguments.target.empty()) {
        throw Failure("-pkg FILE and -target DIR are needed; see installer --help", FailureKind::Usage);
    }
    return arguments;
}

void list(const std::string& target) {
    const FileDescriptor folder(open(target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.isOpen()) {
        throw package::systemFailure("the target cannot be examined");
    }
    installer::forEachReceipt({folder.get()}, [](installer::ReceiptReader& reader) {
        const installer::Receipt& receipt = reader.head();
        installer::printOutcome(receipt.identifier + " " + receipt.version + " " + receipt.time + " " +
                                receipt.signer + "\n");
    });
}

void run(const Arguments& request) {
    installer::PackageFile file(request.package); // first: its process must inherit nothing
    installer::Staging staging(request.target);
    const std::optional<Failure> failure = installer::supervise([&] {
        package::limitMemory();
        install(request, file, staging);
    });
    const bool isCommitted = staging.isDone(); // whatever happened to the worker after that
    std::string left;
    try {
        staging.close();
    } catch (const Failure& problem) {
        left = problem.what();
    }
    if (!isCommitted) {
        const Failure cause = failure.value_or(Failure("the worker did nothing", FailureKind::System));
        throw left.empty()
            ? cause
            : Failure(cause.what() + ("; and the target could not be put back: " + left), cause.kind());
    }
    if (!left.empty()) {
        std::fprintf(stderr, "installer: the next run will complete this one: %s\n", left.c_str());
    }
}

// Before the outcome is printed: printing may take any time, and others wait for the end of the attempt,
// which is when all descriptors of its transaction are closed.
void closePassedOn() {
    closefrom(STDERR_FILENO + 1);
}

} // namespace

int main(int argc, char** argv) {
    prepareProcess();
    try {
        if (argc == 2 && std::string_view(argv[1]) == "--help") {
            installer::printOutcome(kUsage);
            return EXIT_SUCCESS;
        }
        const Arguments arguments = parse(argc, argv);
        if (arguments.isList) {
            list(arguments.target.empty() ? "/" : arguments.target);
            return EXIT_SUCCESS;
        }
        run(arguments);
        closePassedOn();
        installer::printOutcome("installer: The install was successful.\n");
        return EXIT_SUCCESS;
    } catch (const Failure& failure) {
        closePassedOn();
        installer::printFailure(failure.what());
        return static_cast<int>(failure.kind());
    } catch (const std::bad_alloc&) {
        closePassedOn();
        installer::printFailure("out of memory");
    } catch (const std::exception& problem) {
        closePassedOn();
        installer::printFailure(problem.what());
    }
    return static_cast<int>(FailureKind::System);
}
