#include "BareTransfer.h"

#include <curl/curl.h>

#include <cstdio>
#include <memory>

namespace {

using EasyHandle = std::unique_ptr<CURL, void (*)(CURL*)>;

std::size_t writeAndFlush(char* data, std::size_t size, std::size_t count, void* stream) {
    auto* const file = static_cast<FILE*>(stream);
    const std::size_t written = fwrite(data, size, count, file);
    fflush(file);
    return written;
}

} // namespace

bool transferBare(const char* url, const char* path) {
    const EasyHandle probe(curl_easy_init(), curl_easy_cleanup);
    curl_easy_setopt(probe.get(), CURLOPT_URL, url);
    curl_easy_setopt(probe.get(), CURLOPT_NOBODY, 1L);
    if (curl_easy_perform(probe.get()) != CURLE_OK) {
        return false;
    }
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path, "abe"), fclose);
    if (file == nullptr) {
        return false;
    }
    setvbuf(file.get(), nullptr, _IONBF, 0);
    const EasyHandle transfer(curl_easy_init(), curl_easy_cleanup);
    curl_easy_setopt(transfer.get(), CURLOPT_URL, url);
    curl_easy_setopt(transfer.get(), CURLOPT_WRITEFUNCTION, writeAndFlush);
    curl_easy_setopt(transfer.get(), CURLOPT_WRITEDATA, file.get());
    curl_easy_setopt(transfer.get(), CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(0));
    curl_easy_setopt(transfer.get(), CURLOPT_CONNECTTIMEOUT, 30L);
    return curl_easy_perform(transfer.get()) == CURLE_OK;
}
