#pragma once

#include "base/FileDescriptor.h"

#include <netinet/in.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

/// What the server does to one request. As it stands: all of the right answer, then a close.
struct Answer {
    enum Arrival { Prompt, Slow, BlackHole, Refused };
    enum Ending { Close, Reset, Stall };

    int status = 0;                      ///< 0: 200, 206 or 416, as the request asks for
    std::string headers{};               ///< more of them, each with its line end
    std::optional<std::string> length{}; ///< in place of the right one; empty: no such header
    std::optional<std::string> body{};   ///< in place of the document
    std::optional<std::string> wire{};   ///< what is sent of the body, where that is not the body itself
    std::string before{};                ///< sent ahead of the status line
    std::string version = "HTTP/1.1";
    std::size_t head = std::string::npos; ///< how many bytes of status and headers are sent
    std::ptrdiff_t upTo = PTRDIFF_MAX; ///< how many of the body, after a whole head; negative: all but those
    std::size_t drip = 1'000'000;      ///< the most that is sent at once
    Ending ending = Close;
    Arrival arrival = Prompt; ///< slow ones are let in when stalls end; after a refusal nobody is, ever
};

/// Serves a document on a free port of 127.0.0.1, one request a connection and one after the other: the first
/// as told, later ones right. The operations may be called from any thread.
class FaultServer {
  public:
    struct Exchange {
        std::string request;
        std::string body; ///< all of the answer's, however much of it was sent
    };

    explicit FaultServer(std::string document, std::vector<Answer> answers = {});
    ~FaultServer();

    [[nodiscard]] std::string url() const;

    /// Empty before the first.
    [[nodiscard]] Exchange latest() const;

    /// Whether a client waits for the end of a stall.
    [[nodiscard]] bool isStalled() const { return isStalled_; }

    /// Sends the rest of a stalled answer, and lets in who was not, also of those that are still to come.
    void endStalls();

  private:
    [[nodiscard]] const Answer& answer(std::size_t number) const;
    void prepareFor(const Answer& next);
    void serve();
    void stall();
    bool respond(int connection, std::size_t number);

    const std::string document_;
    const std::vector<Answer> answers_;
    const FileDescriptor listener_;
    sockaddr_in place_{};
    std::atomic<bool> isStalled_{false};
    std::atomic<bool> stallsEnded_{false};
    mutable std::mutex mutex_;
    Exchange latest_;
    std::thread thread_;
};
