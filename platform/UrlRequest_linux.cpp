#include "base/Owner.h"
#include "platform/UrlRequest.h"

#include <curl/curl.h>

namespace {

std::size_t appendTo(char* data, std::size_t size, std::size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

/// libcurl's own time-out would count the time that connecting takes.
class ReplyDeadline {
  public:
    ReplyDeadline(CURL* handle, long timeout)
        : handle_(handle), microseconds_(curl_off_t{timeout} * 1'000'000) {
        curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, hasPassed);
        curl_easy_setopt(handle, CURLOPT_XFERINFODATA, this);
    }

  private:
    // Called about once a second also while nothing arrives; a result other than 0 ends the request.
    static int hasPassed(void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
        const auto* const self = static_cast<ReplyDeadline*>(data);
        curl_off_t connected = 0; // 0 until then
        curl_off_t now = 0;
        curl_easy_getinfo(self->handle_, CURLINFO_PRETRANSFER_TIME_T, &connected);
        curl_easy_getinfo(self->handle_, CURLINFO_TOTAL_TIME_T, &now);
        return connected > 0 && now - connected > self->microseconds_ ? 1 : 0;
    }

    CURL* handle_;
    curl_off_t microseconds_;
};

} // namespace

std::optional<std::string> synchronousGet(const std::string& url, long timeout) {
    const Owner<CURL, curl_easy_cleanup> handle(curl_easy_init());
    if (handle == nullptr) {
        return std::nullopt;
    }
    std::string body;
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle.get(), CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT, kConnectTimeout);
    ReplyDeadline deadline(handle.get(), timeout);
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, appendTo);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &body);
    if (curl_easy_perform(handle.get()) != CURLE_OK) {
        return std::nullopt;
    }
    return body;
}
