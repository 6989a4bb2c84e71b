#include "platform/UrlRequest.h"

#include <curl/curl.h>

#include <memory>

namespace {

std::size_t appendTo(char* data, std::size_t size, std::size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

} // namespace

std::optional<std::string> synchronousGet(const std::string& url, long timeout) {
    const std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), curl_easy_cleanup);
    if (handle == nullptr) {
        return std::nullopt;
    }
    std::string body;
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle.get(), CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, timeout);
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, appendTo);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &body);
    if (curl_easy_perform(handle.get()) != CURLE_OK) {
        return std::nullopt;
    }
    return body;
}
