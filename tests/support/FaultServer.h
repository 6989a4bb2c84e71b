#pragma once

#include "platform/FileDescriptor.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

/// One answer of the fault server. Whatever is not named is as it should be.
struct Answer {
    /// A point in the answer: `offset` bytes from the start of the part; from its end where negative.
    struct Place {
        enum Part { Headers, Body } part;
        std::ptrdiff_t offset;
    };
    enum Then { Close, Reset, Stall, KeepAlive };

    std::string before = {};                ///< sent ahead of the status line
    std::string version = "HTTP/1.1";       ///< empty: no status line and no headers at all
    std::string status = {};                ///< as "404 Not Found": whatever range was asked for is ignored
    std::string headers = {};               ///< more lines, each with its line end
    std::optional<std::string> length = {}; ///< of the header; the empty text leaves it out
    std::ptrdiff_t lengthError = 0;         ///< added to the right length
    std::optional<std::string> body = {};   ///< in place of the document
    bool chunked = false;
    std::size_t drip = 0;           ///< so many of the last bytes leave one at a time
    std::optional<Place> upTo = {}; ///< sends no more than this
    Then then = KeepAlive;          ///< what follows the last byte sent
};

/// What the server answers: the n-th request of a kind gets the n-th answer, later ones the last; where the
/// list is empty, the right answer.
struct Behaviour {
    std::vector<Answer> heads = {};
    std::vector<Answer> gets = {};
};

/// An HTTP server on a free port of 127.0.0.1 that serves one document and misbehaves as told. One thread
/// serves any number of connections. The operations may be called from any thread.
class FaultServer {
  public:
    struct Request {
        std::string method;
        std::string range; ///< the header's value, empty where it was not sent
        std::string text;  ///< the whole request
    };

    explicit FaultServer(std::string document);
    FaultServer(const FaultServer&) = delete;
    FaultServer& operator=(const FaultServer&) = delete;
    ~FaultServer();

    [[nodiscard]] std::string url() const;

    /// From the next request on, counted from the first again; forgets the requests so far.
    void behave(Behaviour behaviour);

    [[nodiscard]] std::vector<Request> requests() const;

    /// How many connections clients hold open to it.
    [[nodiscard]] std::size_t connections() const;

    /// Sends the rest of every stalled answer.
    void endStalls();

  private:
    struct Connection;

    void serve();
    void wake() const;
    void acceptConnection();
    bool receive(Connection& connection);
    bool send(Connection& connection) const;
    void answer(Connection& connection, std::size_t requestSize);

    const std::string document_;
    FileDescriptor listener_;
    FileDescriptor wake_;
    std::string address_;

    mutable std::mutex mutex_;
    bool ending_ = false;
    Behaviour behaviour_;
    std::vector<Request> requests_;
    std::vector<std::unique_ptr<Connection>> connections_;

    std::thread thread_;
};
