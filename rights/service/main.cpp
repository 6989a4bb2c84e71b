// The rights service: the system bus starts it as root on demand. Its optional argument is the time in
// seconds for which it runs on without being used, 60 by default.
#include "base/StandardDescriptors.h"
#include "rights/service/Service.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    umask(S_IWGRP | S_IWOTH);
    signal(SIGPIPE, SIG_IGN); // tools do not inherit it, see ChildProcess
    sigset_t childEnds;       // the event loop receives it
    sigemptyset(&childEnds);
    sigaddset(&childEnds, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childEnds, nullptr);
    rights::Service service(std::chrono::seconds(argc > 1 ? strtol(argv[1], nullptr, 10) : 60));
    if (const int result = service.run(); result < 0) {
        rights::log(strerror(-result));
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
