#include "transfer/CurlLibrary.h"

#include <curl/curl.h>

void initialiseCurlLibrary() {
    static_assert(CURL_GLOBAL_ALL == 3);
    curl_global_init(CURL_GLOBAL_ALL);
}

std::string curlLibraryVersion() {
    return curl_version();
}

void cleanUpCurlLibrary() {
    curl_global_cleanup();
}
