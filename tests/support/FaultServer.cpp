#include "support/FaultServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <utility>

struct FaultServer::Connection {
    FileDescriptor socket;
    std::string received;
    std::string answer;
    std::size_t sent = 0;
    std::size_t end = 0; // of what may be sent
    std::size_t drip = 0;
    bool isAnswering = false;
    Answer::Then then = Answer::KeepAlive;

    [[nodiscard]] bool isSending() const { return sent < end; }
    [[nodiscard]] bool isDripping() const { return isSending() && answer.size() - sent <= drip; }
};

namespace {

constexpr std::size_t kBlock = 65'536;
const std::string kLineEnd = "\r\n";

std::string rangeOf(const std::string& request) {
    const std::string name = kLineEnd + "Range: ";
    const std::size_t at = request.find(name);
    if (at == std::string::npos) {
        return "";
    }
    const std::size_t start = at + name.size();
    return request.substr(start, request.find(kLineEnd, start) - start);
}

/// The right status, its headers and its body.
struct RightAnswer {
    std::string status = "200 OK";
    std::string headers;
    std::string body;

    RightAnswer(const std::string& range, const std::string& document) {
        const std::string unit = "bytes=";
        if (!range.starts_with(unit)) {
            body = document;
            return;
        }
        const std::uint64_t offset = std::strtoull(range.c_str() + unit.size(), nullptr, 10);
        const std::string total = "/" + std::to_string(document.size()) + kLineEnd;
        if (offset >= document.size()) {
            status = "416 Range Not Satisfiable";
            headers = "Content-Range: bytes *" + total;
            return;
        }
        status = "206 Partial Content";
        headers = "Content-Range: bytes " + std::to_string(offset) + "-" +
                  std::to_string(document.size() - 1) + total;
        body = document.substr(offset);
    }
};

std::string chunksOf(const std::string& body) {
    std::string chunks;
    for (std::size_t at = 0; at < body.size(); at += kBlock) {
        const std::string piece = body.substr(at, kBlock);
        char size[20];
        std::snprintf(size, sizeof size, "%zx", piece.size());
        chunks.append(size).append(kLineEnd).append(piece).append(kLineEnd);
    }
    return chunks + "0" + kLineEnd + kLineEnd;
}

/// Headers and body of an answer, ready to send.
std::pair<std::string, std::string> composed(const Answer& answer, bool isHead, const std::string& range,
                                             const std::string& document) {
    RightAnswer right(answer.status.empty() ? range : "", document);
    const std::string status = answer.status.empty() ? right.status : answer.status;
    std::string body = answer.body.value_or(right.body);
    std::string head = answer.before;
    if (!answer.version.empty()) {
        head += answer.version + " " + status + kLineEnd + right.headers + answer.headers;
        const auto bodySize = static_cast<std::ptrdiff_t>(body.size());
        if (answer.chunked) {
            head += "Transfer-Encoding: chunked" + kLineEnd;
        } else if (!answer.length || !answer.length->empty()) {
            head +=
                "Content-Length: " + answer.length.value_or(std::to_string(bodySize + answer.lengthError)) +
                kLineEnd;
        }
        head += kLineEnd;
    }
    if (answer.chunked) {
        body = chunksOf(body);
    }
    return {head, isHead ? "" : body};
}

std::size_t endOf(const Answer& answer, std::size_t headerSize, std::size_t size) {
    if (!answer.upTo) {
        return size;
    }
    const bool inHeaders = answer.upTo->part == Answer::Place::Headers;
    const auto start = static_cast<std::ptrdiff_t>(inHeaders ? 0 : headerSize);
    const auto end = static_cast<std::ptrdiff_t>(inHeaders ? headerSize : size);
    const std::ptrdiff_t from = answer.upTo->offset < 0 ? end : start;
    return static_cast<std::size_t>(std::clamp(from + answer.upTo->offset, start, end));
}

void reset(FileDescriptor& socket) {
    const linger atOnce{1, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    socket.reset();
}

} // namespace

FaultServer::FaultServer(std::string document)
    : document_(std::move(document)),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        listen(listener_.get(), SOMAXCONN) != 0 ||
        getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("the fault server does not start");
    }
    address_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    thread_ = std::thread([this] { serve(); });
}

FaultServer::~FaultServer() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake();
    thread_.join();
}

std::string FaultServer::url() const {
    return "http://" + address_ + "/soft/Pellomar.pkg";
}

void FaultServer::behave(Behaviour behaviour) {
    const std::lock_guard lock(mutex_);
    behaviour_ = std::move(behaviour);
    requests_.clear();
}

std::vector<FaultServer::Request> FaultServer::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

std::size_t FaultServer::connections() const {
    const std::lock_guard lock(mutex_);
    return connections_.size();
}

void FaultServer::endStalls() {
    {
        const std::lock_guard lock(mutex_);
        for (const auto& connection : connections_) {
            if (connection->then == Answer::Stall) {
                connection->end = connection->answer.size();
                connection->then = Answer::KeepAlive;
            }
        }
    }
    wake();
}

void FaultServer::wake() const {
    eventfd_write(wake_.get(), 1);
}

void FaultServer::serve() {
    std::unique_lock lock(mutex_);
    while (!ending_) {
        std::vector<pollfd> watched = {{wake_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
        bool dripping = false;
        for (const auto& connection : connections_) {
            const bool drips = connection->isDripping();
            const bool sends = connection->isSending() && !drips;
            watched.push_back(
                {connection->socket.get(), static_cast<short>(sends ? POLLIN | POLLOUT : POLLIN), 0});
            dripping |= drips;
        }
        lock.unlock();
        poll(watched.data(), watched.size(), dripping ? 1 : -1);
        lock.lock();
        eventfd_t ignored = 0;
        eventfd_read(wake_.get(), &ignored);
        std::size_t index = 2;
        std::erase_if(connections_, [&](const std::unique_ptr<Connection>& connection) {
            const short events = watched[index++].revents;
            return ((events & ~POLLOUT) != 0 && !receive(*connection)) || !send(*connection);
        });
        if ((watched[1].revents & POLLIN) != 0) {
            acceptConnection();
        }
    }
    connections_.clear();
}

void FaultServer::acceptConnection() {
    FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket.isOpen()) {
        const int yes = 1;
        setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        connections_.push_back(std::make_unique<Connection>());
        connections_.back()->socket = std::move(socket);
    }
}

/// Takes in what the client sent and starts an answer when a request is complete. False when it hung up.
bool FaultServer::receive(Connection& connection) {
    char block[4096];
    const ssize_t count = recv(connection.socket.get(), block, sizeof block, 0);
    if (count <= 0) {
        return count < 0 && errno == EAGAIN;
    }
    connection.received.append(block, static_cast<std::size_t>(count));
    const std::size_t end = connection.received.find(kLineEnd + kLineEnd);
    if (end != std::string::npos && !connection.isAnswering) {
        answer(connection, end + 2 * kLineEnd.size());
    }
    return true;
}

void FaultServer::answer(Connection& connection, std::size_t requestSize) {
    Request request;
    request.text = connection.received.substr(0, requestSize);
    request.method = request.text.substr(0, request.text.find(' '));
    request.range = rangeOf(request.text);
    connection.received.erase(0, requestSize);

    const bool isHead = request.method == "HEAD";
    const std::vector<Answer>& answers = isHead ? behaviour_.heads : behaviour_.gets;
    const auto earlier =
        static_cast<std::size_t>(std::count_if(requests_.begin(), requests_.end(), [&](const Request& other) {
            return other.method == request.method;
        }));
    const Answer answer = answers.empty() ? Answer{} : answers[std::min(earlier, answers.size() - 1)];
    const auto [head, body] = composed(answer, isHead, request.range, document_);
    requests_.push_back(std::move(request));

    connection.answer = head + body;
    connection.sent = 0;
    connection.end = endOf(answer, head.size(), connection.answer.size());
    connection.drip = answer.drip;
    connection.then = answer.then;
    connection.isAnswering = true;
}

/// Sends some of the answer, and after its last byte does what follows. False when that ends the connection.
bool FaultServer::send(Connection& connection) const {
    if (connection.isSending()) {
        std::size_t size = std::min(connection.end - connection.sent, kBlock);
        if (connection.isDripping()) {
            size = 1;
        } else if (connection.drip > 0) {
            size = std::min(size, connection.answer.size() - connection.drip - connection.sent);
        }
        const ssize_t count =
            ::send(connection.socket.get(), connection.answer.data() + connection.sent, size, MSG_NOSIGNAL);
        if (count < 0) {
            return errno == EAGAIN;
        }
        connection.sent += static_cast<std::size_t>(count);
    }
    if (connection.isSending() || !connection.isAnswering || connection.then == Answer::Stall) {
        return true;
    }
    if (connection.then == Answer::Reset) {
        reset(connection.socket);
    }
    connection.isAnswering = false;
    return connection.then == Answer::KeepAlive;
}
