#pragma once

#include <cstdlib>
#include <initializer_list>

/// Makes libcurl speak to the tests' servers itself, whatever proxy the machine is set up for. Before any
/// transfer, while the process has one thread.
inline void forgetProxies() {
    for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY"}) {
        unsetenv(name);
    }
}
