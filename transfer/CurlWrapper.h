#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

/// The download's HTTP: a length probe, a body transfer that can resume, and a switch that aborts.
///
/// Every operation but SyncStop blocks the calling thread, the download worker, until libcurl returns. What
/// the panel has to learn is posted as CurlMessage records on the calling thread; the results are for the
/// worker. Results are 0 for success, 2 when libcurl gave no handle, else libcurl's result code.
class CurlWrapper {
  public:
    /// Asks for the length of `url`. -1 when the server does not tell it. The HTTP status is not examined:
    /// an error page that carries a length is taken as the file.
    static int SyncHead(const std::string& url);

    /// Fetches the bytes of `url` from offset `startPos` into `stream`, which must be unbuffered so that only
    /// bytes that reached the file are counted. The stream stays the caller's.
    static int SyncDownload(const std::string& url, FILE* stream, const std::int64_t& startPos);

    /// The same, appended to the file at `path`. 23 (libcurl's write error) when it cannot be opened.
    static int SyncDownloadToFile(const std::string& url, const std::string& path,
                                  const std::int64_t& startPos);

    /// Any nonzero identifier makes every running transfer end at its next block, 0 takes that back. Any
    /// thread.
    static void SyncStop(std::int64_t identifier);
};
