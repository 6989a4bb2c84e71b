// Installs a flat package, completely or not at all.
#include "base/StandardStreams.h"
#include "installer/Install.h"
#include "installer/Output.h"
#include "installer/Staging.h"
#include "installer/Supervisor.h"
#include "package/Failure.h"

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
#include <string>
#include <string_view>

namespace {

using installer::Request;
using package::Failure;

constexpr char kUsage[] =
    "Usage: installer -pkg FILE -target DIR [-trusted DIR]\n"
    "\n"
    "Installs the flat package FILE into the folder DIR, completely or not at all. Progress and the outcome\n"
    "go to standard output; the exit status is 0 only for a complete install.\n"
    "\n"
    "  -pkg FILE     the package: a xar archive that holds PackageInfo, Payload and, if need be, Scripts\n"
    "  -target DIR   the folder to install into, / for this machine\n"
    "  -trusted DIR  a folder of certificates in PEM form (/etc/pellomar-installer/trusted); where it holds\n"
    "                any, only a package that is signed by one of them, or in its name, is installed\n"
    "  --help        show this text\n";

void prepareProcess() {
    occupyStandardStreams();
    // What the caller passed on is for this program, not for the package's scripts.
    close_range(STDERR_FILENO + 1, UINT_MAX, CLOSE_RANGE_CLOEXEC);
    (void)std::setlocale(LC_CTYPE, "C.UTF-8"); // names in the archive are UTF-8
    umask(S_IWGRP | S_IWOTH);
    std::signal(SIGPIPE, SIG_IGN); // a caller that stopped reading still wants a whole install
    std::signal(SIGXFSZ, SIG_IGN); // so that the write fails and is reported
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) { // deep trees take some
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    installer::sayWhenStopped();
}

Request parse(int argc, char** argv) {
    Request request;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        std::string* value = argument == "-pkg"       ? &request.package
                             : argument == "-target"  ? &request.target
                             : argument == "-trusted" ? &request.trusted
                                                      : nullptr;
        if (!value) {
            throw Failure("unknown argument; see installer --help");
        }
        if (i + 1 == argc) {
            throw Failure("an argument lacks its value; see installer --help");
        }
        *value = argv[++i];
    }
    // Only the usual folder may be missing: whoever names one expects its certificates to count.
    if (request.trusted != Request().trusted && !std::filesystem::is_directory(request.trusted)) {
        throw Failure("-trusted names no folder");
    }
    if (request.package.empty() || request.target.empty()) {
        throw Failure("-pkg FILE and -target DIR are needed; see installer --help");
    }
    return request;
}

void run(const Request& request) {
    const installer::Staging staging(request.target);
    const installer::Ending ending = installer::supervise([&] { install(request, staging); });
    const bool counts = staging.isDone(); // whatever happened to the worker after that
    try {
        staging.close();
    } catch (const Failure& problem) {
        if (!counts) {
            throw Failure(ending.cause + "; and the target could not be put back: " + problem.what());
        }
    }
    if (!counts) {
        throw Failure(ending.cause);
    }
}

} // namespace

int main(int argc, char** argv) {
    prepareProcess();
    try {
        if (argc == 2 && std::string_view(argv[1]) == "--help") {
            installer::print(kUsage);
            return EXIT_SUCCESS;
        }
        run(parse(argc, argv));
        installer::print("installer: The install was successful.\n");
        return EXIT_SUCCESS;
    } catch (const std::bad_alloc&) {
        installer::printFailure("out of memory");
    } catch (const std::exception& problem) {
        installer::printFailure(problem.what());
    }
    return EXIT_FAILURE;
}
