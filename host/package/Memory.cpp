#include "host/package/Memory.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace package {

void limitMemory() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // both need terabytes and large stacks
    // A thread's own arena and a stack of the usual size take far more address space than the threads here
    // need.
    constexpr std::size_t kStack = 512 << 10;
    mallopt(M_ARENA_MAX, 1);
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) == 0) {
        pthread_attr_setstacksize(&attributes, kStack);
        pthread_setattr_default_np(&attributes);
        pthread_attr_destroy(&attributes);
    }
    constexpr rlim_t kMore = 48 << 20;
    rlim_t pages = 0;
    rlimit memory{};
    if (std::ifstream("/proc/self/statm") >> pages && getrlimit(RLIMIT_AS, &memory) == 0) {
        memory.rlim_cur =
            std::min(memory.rlim_cur, pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + kMore);
        setrlimit(RLIMIT_AS, &memory);
    }
#endif
}

} // namespace package
