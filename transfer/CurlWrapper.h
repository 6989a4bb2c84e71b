#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

/// HTTP for the download: a length probe, a body transfer that can resume, and an abort flag.
///
/// Every operation but SyncStop blocks the calling thread, the download worker, until libcurl returns. Events
/// are posted to the panel as CurlMessage records on the calling thread. Results are 0 for success, 2 when
/// libcurl gave no handle, else libcurl's result code.
class CurlWrapper {
  public:
    /// Requests the length of `url`. -1 when the server does not give it. The HTTP status is ignored: an
    /// error page with a length counts as the file.
    static int SyncHead(const std::string& url);

    /// Downloads `url` from byte `startPos` into `stream`, which must be unbuffered so that only bytes that
    /// reached the file are counted. The caller keeps ownership of the stream.
    static int SyncDownload(const std::string& url, FILE* stream, const std::int64_t& startPos);

    /// The same, appended to the file at `path`. 23 (libcurl's write error) when it cannot be opened.
    static int SyncDownloadToFile(const std::string& url, const std::string& path,
                                  const std::int64_t& startPos);

    /// Sets the abort flag, which ends every transfer at its next block, for any identifier but 0, and clears
    /// it for 0. Any thread.
    static void SyncStop(std::int64_t identifier);
};
