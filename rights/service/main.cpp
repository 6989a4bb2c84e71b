// The rights service: the system bus starts it as root on demand. Its one argument is the time in seconds
// after which it ends when it is not used, 60 where there is none.
#include "base/StandardStreams.h"
#include "rights/service/Service.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    occupyStandardStreams();
    umask(S_IWGRP | S_IWOTH);
    signal(SIGPIPE, [](int) {}); // a handler, since tools would inherit that it is ignored
    sigset_t childEnds;          // the event loop receives it; tools start with nothing blocked
    sigemptyset(&childEnds);
    sigaddset(&childEnds, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childEnds, nullptr);
    rights::Service service(std::chrono::seconds(argc > 1 ? strtol(argv[1], nullptr, 10) : 60));
    const int result = service.run();
    if (result < 0) {
        fprintf(stderr, "pellomar-downloader-rights: %s\n", strerror(-result));
    }
    return result < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
