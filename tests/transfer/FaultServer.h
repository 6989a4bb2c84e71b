#pragma once

#include "platform/FileDescriptor.h"

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

/// What the server does to one request. As it stands: all of the right answer, then a close.
struct Answer {
    enum Ending { Close, Reset, Stall };

    int status = 0;                       ///< 0: 200, 206 or 416, as the request asks for
    std::string headers{};                ///< more of them, each with its line end
    std::optional<std::string> length{};  ///< in place of the right one; empty: no such header
    std::optional<std::string> body{};    ///< in place of the document
    std::size_t head = std::string::npos; ///< how many bytes of status and headers are sent
    std::size_t upTo = std::string::npos; ///< how many bytes of the body are sent, after a whole head
    std::size_t drip = 1'000'000;         ///< the most that is sent at once
    Ending ending = Close;
};

/// Serves a document on a free port of 127.0.0.1, one request a connection and one after the other: the
/// first as told, later ones right. The operations may be called from any thread.
class FaultServer {
  public:
    explicit FaultServer(std::string document, Answer first = {});
    ~FaultServer();

    [[nodiscard]] const std::string& address() const { return address_; } ///< host:port
    [[nodiscard]] std::string url() const { return "http://" + address_ + "/soft/Pellomar.pkg"; }

    /// The latest request, empty before the first.
    [[nodiscard]] std::string request() const;

    /// Sends the rest of a stalled answer, also of one that is still to come.
    void endStall();

  private:
    void answer(int connection, const Answer& answer);

    const std::string document_;
    const FileDescriptor listener_;
    std::string address_;
    std::atomic<bool> stallEnded_{false};
    mutable std::mutex mutex_;
    std::string request_;
    std::thread thread_;
};
