// Signs a flat package, for its publisher. Keys are read from files, so that none is ever seen on a
// command line.
#include "host/package/Memory.h"
#include "host/sign-package/PackageSigner.h"

#include <sys/prctl.h>
#include <sys/resource.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string_view>

namespace {

constexpr char kUsage[] =
    "Usage: sign-package KEY CERTIFICATE [CHAIN...] IN OUT\n"
    "\n"
    "Writes the flat package IN to OUT, signed. All files but the packages are in PEM form.\n"
    "\n"
    "  KEY          the publisher's RSA key, of 2048 bits at least; its passphrase is asked for\n"
    "  CERTIFICATE  the key's certificate, meant for signing code\n"
    "  CHAIN        the certificates that lead from it to the one that installers trust, in this order\n"
    "  --help       show this text\n";

// Neither a core dump nor another process of the same user gets to see the key.
void protectMemory() {
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_CORE, &none) != 0 || prctl(PR_SET_DUMPABLE, 0) != 0) {
        throw std::runtime_error("core dumps cannot be forbidden");
    }
}

} // namespace

int main(int argc, char** argv) try {
    constexpr int kWrongUse = 2;
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 1 && arguments[0] == "--help") {
        std::fputs(kUsage, stdout);
        return EXIT_SUCCESS;
    }
    if (arguments.size() < 4) {
        std::fputs(kUsage, stderr);
        return kWrongUse;
    }
    protectMemory();
    std::setlocale(LC_CTYPE, "C.UTF-8"); // as in the installer, whose checks these are
    const Publisher publisher = readPublisher(arguments[0], {arguments.begin() + 1, arguments.end() - 2});
    package::limitMemory(); // after the key's passphrase, which may take more on purpose
    const std::string fingerprint = signPackage(arguments.end()[-2], arguments.back(), publisher);
    std::printf("sign-package: signed by %s\n", fingerprint.c_str());
    return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception& problem) {
    std::fprintf(stderr, "sign-package: %s\n", problem.what());
    return EXIT_FAILURE;
}
