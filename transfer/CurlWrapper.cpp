#include "transfer/CurlWrapper.h"

#include "platform/LeakChecker.h"
#include "platform/Log.h"
#include "transfer/CurlMessage.h"

#include <curl/curl.h>

#include <atomic>
#include <limits>
#include <memory>

namespace {

constexpr int kNoHandle = CURLE_FAILED_INIT;
constexpr std::int64_t kNoTransfer = -1;

/// The abort flag, shared by all transfers.
std::atomic<bool> bExit{false};

using EasyHandle = std::unique_ptr<CURL, void (*)(CURL*)>;

EasyHandle makeHandle() {
    return {curl_easy_init(), curl_easy_cleanup};
}

/// A transfer is named by the address of its stream: never 0, never odd, unique while the stream is open.
std::int64_t tokenOf(FILE* stream) {
    return static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(stream));
}

/// A name for a transfer that never got a stream; odd, so that it can't be taken for another's.
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

/// The probe's double as bytes; a claim beyond the counter's range counts as its end.
std::int64_t truncatedLength(double length) {
    constexpr double kBeyond = 0x1p63;
    return length < kBeyond ? static_cast<std::int64_t>(length) : std::numeric_limits<std::int64_t>::max();
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
    fflush(stream);
    // A record of 0 bytes would tell the panel that the user stopped.
    if (written > 0) {
        post(CurlMessageTypeData, 0, tokenOf(stream), static_cast<std::int64_t>(written));
    }
    return written;
}

} // namespace

int CurlWrapper::SyncHead(const std::string& url) {
    EasyHandle handle = makeHandle();
    if (handle == nullptr) {
        return probeFailed(kNoHandle);
    }
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_HEADER, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_NOBODY, 1L);
    int result = curl_easy_perform(handle.get());
    if (result != CURLE_OK) {
        handle.reset();
        return probeFailed(result);
    }
    double length = 0.0;
    // The replacement query gives an integer that can't hold what a server may claim.
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
    EasyHandle handle = makeHandle();
    int result = kNoHandle;
    if (handle != nullptr) {
        curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
        curl_easy_setopt(handle.get(), CURLOPT_HEADER, 0L);
        curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, OnDownLoadFile);
        curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, stream);
        curl_easy_setopt(handle.get(), CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(startPos));
        curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT, 30L);
        post(CurlMessageTypeStarted, 0, tokenOf(stream), -1);
        result = curl_easy_perform(handle.get());
        handle.reset();
    }
    NSLog("SyncDownload Return Code:%d", result);
    return result;
}

int CurlWrapper::SyncDownloadToFile(const std::string& url, const std::string& path,
                                    const std::int64_t& startPos) {
    const std::unique_ptr<FILE, int (*)(FILE*)> stream(
        fopen(path.c_str(), "abe"), [](FILE* opened) { return opened == nullptr ? 0 : fclose(opened); });
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
