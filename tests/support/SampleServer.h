#pragma once

#include "support/ScratchFolder.h"

#include <sys/types.h>

#include <string>

/// The project's own download server, a real nginx, on a free port of 127.0.0.1 for as long as the object
/// lives; it ends with the thread that made it, also when that crashes.
class SampleServer {
  public:
    /// Serves the folder `documents`; downloads below /soft/ get `rate` bytes a second each, as nginx spells
    /// it ("800k"; "0" for no limit). Throws, with what the server said, when it does not come up.
    explicit SampleServer(const std::string& documents, const std::string& rate = "0");
    SampleServer(const SampleServer&) = delete;
    SampleServer& operator=(const SampleServer&) = delete;
    ~SampleServer();

    /// host:port
    [[nodiscard]] const std::string& address() const { return address_; }
    [[nodiscard]] std::string url(const std::string& path) const { return "http://" + address_ + path; }

    /// A line for each request that has ended, like: … "GET /soft/x HTTP/1.1" range="bytes=5-" 206 …
    [[nodiscard]] std::string accessLog() const;

  private:
    bool start(const std::string& documents, const std::string& rate);
    void stop();

    ScratchFolder folder_;
    std::string address_;
    pid_t process_ = -1;
};
