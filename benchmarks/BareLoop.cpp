#include "BareTransfer.h"

#include <curl/curl.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "Usage: %s URL FILE\n", argv[0]);
        return 2;
    }
    curl_global_init(CURL_GLOBAL_ALL);
    return transferBare(argv[1], argv[2]) ? 0 : 1;
}
