#include "transfer/CurlWrapper.h"

#include "base/Owner.h"
#include "platform/LeakChecker.h"
#include "platform/Log.h"
#include "platform/UrlRequest.h"
#include "transfer/CurlMessage.h"

#include <curl/curl.h>

#include <atomic>
#include <cerrno>
#include <limits>

namespace {

constexpr int kNoHandle = CURLE_FAILED_INIT;
constexpr std::int64_t kNoTransfer = -1;

/// The abort flag, shared by all transfers.
std::atomic<bool> bExit{false};

using EasyHandle = Owner<CURL, curl_easy_cleanup>;

/// The token of a transfer is the address of its stream: not 0, even, and unique while the stream is open.
std::int64_t tokenOf(FILE* stream) {
    return static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(stream));
}

/// A token for a transfer whose file could not be opened; odd, so that it equals no stream's.
std::int64_t tokenWithoutStream() {
    static std::atomic<std::int64_t> next{1};
    return next.fetch_add(2);
}

void post(CurlMessageType type, std::int32_t status, std::int64_t identifier, std::int64_t quantity = 0) {
    CurlMessage message;
    message.setItype(type);
    message.setStatus(status);
    message.setIMessage(quantity);
    message.setIdentifier(identifier);
    postCurlMessage(message);
}

/// The probed length in bytes; one beyond the range of the result becomes its maximum.
std::int64_t truncatedLength(double length) {
    constexpr double kBeyond = 0x1p63;
    return length < kBeyond ? static_cast<std::int64_t>(length) : std::numeric_limits<std::int64_t>::max();
}

/// The outcome of a request, for the log. It omits libcurl's own error message, which can quote the address
/// of a proxy from the environment, with user name and password.
std::string outcomeOf(CURL* handle, int result) {
    long answer = 0;
    long port = 0;
    long systemError = 0;
    const char* address = nullptr;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &answer);
    curl_easy_getinfo(handle, CURLINFO_PRIMARY_IP, &address);
    curl_easy_getinfo(handle, CURLINFO_PRIMARY_PORT, &port);
    curl_easy_getinfo(handle, CURLINFO_OS_ERRNO, &systemError);
    std::string text = "HTTP " + std::to_string(answer);
    if (address != nullptr && *address != '\0') {
        text += std::string(" from ") + address + " port " + std::to_string(port);
    }
    text += std::string(", ") + curl_easy_strerror(static_cast<CURLcode>(result));
    // In any other failure it may be left from an address that was tried before the one that answered.
    const bool isCause =
        result == CURLE_COULDNT_CONNECT || result == CURLE_SEND_ERROR || result == CURLE_RECV_ERROR;
    if (isCause && systemError != 0) {
        text += std::string(", ") + systemErrorText(static_cast<int>(systemError));
    }
    return text;
}

int probeFailed(int status) {
    post(CurlMessageTypeProbeFailed, status, kNoTransfer);
    return status;
}

std::size_t OnDownLoadFile(char* data, std::size_t size, std::size_t count, void* userData) {
    if (bExit) {
        return std::numeric_limits<std::size_t>::max();
    }
    auto* const stream = static_cast<FILE*>(userData);
    const std::size_t written = fwrite(data, size, count, stream);
    if (written < count) {
        NSLog("Write of File failed:%s", systemErrorText(errno));
    }
    fflush(stream);
    // To the panel, a record of 0 bytes means that the user stopped the transfer.
    if (written > 0) {
        post(CurlMessageTypeData, 0, tokenOf(stream), static_cast<std::int64_t>(written));
    }
    return written;
}

} // namespace

int CurlWrapper::SyncHead(const std::string& url) {
    EasyHandle handle(curl_easy_init());
    if (handle == nullptr) {
        return probeFailed(kNoHandle);
    }
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_HEADER, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_NOBODY, 1L);
    int result = curl_easy_perform(handle.get());
    NSLog("SyncHead:%s", outcomeOf(handle.get(), result).c_str());
    if (result != CURLE_OK) {
        handle.reset();
        return probeFailed(result);
    }
    double length = 0.0;
    // The integer query that replaces it fails for lengths beyond its range.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    result = curl_easy_getinfo(handle.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD, &length);
#pragma GCC diagnostic pop
    if (length < 0.0) {
        NSLog("Target File does not exists");
        post(CurlMessageTypeProbeFailed, -1, kNoTransfer);
        // The handle stays unreleased here on purpose.
        leftUnreleasedOnPurpose(handle.release());
        return -1;
    }
    if (result == CURLE_OK) {
        post(CurlMessageTypeLength, 0, kNoTransfer, truncatedLength(length));
        return result;
    }
    handle.reset();
    return probeFailed(result);
}

int CurlWrapper::SyncDownload(const std::string& url, FILE* stream, const std::int64_t& startPos) {
    EasyHandle handle(curl_easy_init());
    int result = kNoHandle;
    std::string outcome = "no handle";
    if (handle != nullptr) {
        curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
        curl_easy_setopt(handle.get(), CURLOPT_HEADER, 0L);
        curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, OnDownLoadFile);
        curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, stream);
        curl_easy_setopt(handle.get(), CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(startPos));
        curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT, kConnectTimeout);
        post(CurlMessageTypeStarted, 0, tokenOf(stream), -1);
        result = curl_easy_perform(handle.get());
        outcome = outcomeOf(handle.get(), result);
        handle.reset();
    }
    NSLog("SyncDownload Return Code:%d", result);
    NSLog("SyncDownload from byte %lld:%s", static_cast<long long>(startPos), outcome.c_str());
    return result;
}

int CurlWrapper::SyncDownloadToFile(const std::string& url, const std::string& path,
                                    const std::int64_t& startPos) {
    const Owner<FILE, fclose> stream(fopen(path.c_str(), "abe"));
    if (stream == nullptr) {
        NSLog("Open of File for appending failed:%s!", path.c_str());
        post(CurlMessageTypeData, -1, tokenWithoutStream());
        return CURLE_WRITE_ERROR;
    }
    setvbuf(stream.get(), nullptr, _IONBF, 0);
    const int result = SyncDownload(url, stream.get(), startPos);
    const std::int64_t token = tokenOf(stream.get());
    if (result == CURLE_OK) {
        post(CurlMessageTypeFinished, 0, token);
    } else if (bExit) {
        post(CurlMessageTypeData, 0, token);
    } else {
        post(CurlMessageTypeData, -1, token);
    }
    return result;
}

void CurlWrapper::SyncStop(std::int64_t identifier) {
    bExit = identifier != 0;
}
