#include "transfer/FaultServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace {

/// Status and headers, and the body.
std::pair<std::string, std::string> composed(const Answer& answer, const std::string& request,
                                             std::string body) {
    int status = answer.status == 0 ? 200 : answer.status;
    std::string headers = answer.headers;
    const std::string range = "\r\nRange: bytes=";
    if (const std::size_t at = request.find(range); at != std::string::npos && answer.status == 0) {
        const std::size_t offset = std::stoull(request.substr(at + range.size()));
        const std::string size = std::to_string(body.size());
        const std::string part = std::to_string(offset) + "-" + std::to_string(body.size() - 1);
        status = offset < body.size() ? 206 : 416;
        headers += "Content-Range: bytes " + (status == 206 ? part : "*") + "/" + size + "\r\n";
        body.erase(0, offset);
    }
    body = answer.body.value_or(body);
    const std::string length = answer.length.value_or(std::to_string(body.size()));
    headers += length.empty() ? "" : "Content-Length: " + length + "\r\n";
    return {"HTTP/1.1 " + std::to_string(status) + " Status\r\n" + headers + "\r\n", body};
}

} // namespace

FaultServer::FaultServer(std::string document, Answer first)
    : document_(std::move(document)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const bound = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(listener_.get(), bound, size), 0);
    listen(listener_.get(), SOMAXCONN);
    getsockname(listener_.get(), bound, &size);
    address_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    thread_ = std::thread([this, next = std::move(first)]() mutable {
        while (true) {
            const FileDescriptor connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!connection.isOpen()) {
                return;
            }
            answer(connection.get(), std::exchange(next, {}));
        }
    });
}

FaultServer::~FaultServer() {
    endStall();
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
}

std::string FaultServer::request() const {
    const std::lock_guard lock(mutex_);
    return request_;
}

void FaultServer::endStall() {
    stallEnded_ = true;
    stallEnded_.notify_all();
}

void FaultServer::answer(int connection, const Answer& answer) {
    std::string request;
    for (char byte = 0; !request.ends_with("\r\n\r\n"); request += byte) {
        if (recv(connection, &byte, 1, 0) != 1) {
            return;
        }
    }
    const auto [head, body] = composed(answer, request, document_);
    std::string bytes = head.substr(0, answer.head);
    if (bytes == head && !request.starts_with("HEAD")) {
        bytes += body.substr(0, answer.upTo);
    }
    std::unique_lock lock(mutex_);
    request_ = std::move(request);
    lock.unlock();
    for (std::size_t at = 0; at < bytes.size(); at += answer.drip) {
        send(connection, &bytes[at], std::min(answer.drip, bytes.size() - at), MSG_NOSIGNAL);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (answer.ending == Answer::Stall) {
        stallEnded_.wait(false);
        send(connection, &body[answer.upTo], body.size() - answer.upTo, MSG_NOSIGNAL);
    } else if (answer.ending == Answer::Reset) {
        const linger atOnce{1, 0};
        setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
}
