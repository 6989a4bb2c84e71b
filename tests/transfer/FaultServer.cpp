#include "transfer/FaultServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
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
    return {answer.version + " " + std::to_string(status) + " Status\r\n" + headers + "\r\n", body};
}

FileDescriptor makeSocket() {
    return FileDescriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

} // namespace

FaultServer::FaultServer(std::string document, std::vector<Answer> answers)
    : document_(std::move(document)), answers_(std::move(answers)), listener_(makeSocket()) {
    place_.sin_family = AF_INET;
    place_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof place_;
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&place_), size), 0);
    listen(listener_.get(), SOMAXCONN);
    getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&place_), &size);
    prepareFor(answer(0));
    thread_ = std::thread([this] { serve(); });
}

FaultServer::~FaultServer() {
    endStalls();
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
}

std::string FaultServer::url() const {
    return "http://127.0.0.1:" + std::to_string(ntohs(place_.sin_port)) + "/soft/Pellomar.pkg";
}

FaultServer::Exchange FaultServer::latest() const {
    const std::lock_guard lock(mutex_);
    return latest_;
}

void FaultServer::endStalls() {
    listen(listener_.get(), SOMAXCONN);
    stallsEnded_ = true;
    stallsEnded_.notify_all();
}

const Answer& FaultServer::answer(std::size_t number) const {
    static const Answer right;
    return number < answers_.size() ? answers_[number] : right;
}

void FaultServer::prepareFor(const Answer& next) {
    if (next.arrival == Answer::Refused) {
        shutdown(listener_.get(), SHUT_RDWR);
    } else if (next.arrival == Answer::BlackHole && !stallsEnded_) {
        // One that waits to be let in fills the queue, and the kernel answers nobody else.
        listen(listener_.get(), 0);
        EXPECT_EQ(connect(makeSocket().get(), reinterpret_cast<sockaddr*>(&place_), sizeof place_), 0);
    }
}

void FaultServer::serve() {
    for (std::size_t number = 0;;) {
        if (answer(number).arrival == Answer::Slow || answer(number).arrival == Answer::BlackHole) {
            stall();
        }
        const FileDescriptor connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!connection.isOpen()) {
            return;
        }
        number += respond(connection.get(), number) ? 1 : 0;
    }
}

void FaultServer::stall() {
    isStalled_ = true;
    stallsEnded_.wait(false);
    isStalled_ = false;
}

bool FaultServer::respond(int connection, std::size_t number) {
    std::string request;
    for (char byte = 0; !request.ends_with("\r\n\r\n"); request += byte) {
        if (recv(connection, &byte, 1, 0) != 1) {
            return false;
        }
    }
    const Answer& told = answer(number);
    const auto [head, body] = composed(told, request, document_);
    const std::string wire = request.starts_with("HEAD") ? "" : told.wire.value_or(body);
    const std::string all = told.before + head + wire;
    const std::ptrdiff_t size = std::ssize(wire);
    const std::ptrdiff_t missing = size - std::clamp(told.upTo < 0 ? size + told.upTo : told.upTo, 0L, size);
    const std::size_t part = told.head < head.size() ? told.before.size() + told.head
                                                     : all.size() - static_cast<std::size_t>(missing);
    std::unique_lock lock(mutex_);
    latest_ = {request, body};
    lock.unlock();
    prepareFor(answer(number + 1));
    const int atOnce = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof atOnce);
    const auto sendUpTo = [&](std::size_t end, std::size_t at) {
        for (; at < end; at += told.drip) {
            send(connection, &all[at], std::min(told.drip, end - at), MSG_NOSIGNAL);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    sendUpTo(part, 0);
    if (told.ending == Answer::Stall && part < all.size()) {
        stall();
        sendUpTo(all.size(), part);
    } else if (told.ending == Answer::Reset) {
        const linger noFarewell{1, 0};
        setsockopt(connection, SOL_SOCKET, SO_LINGER, &noFarewell, sizeof noFarewell);
    }
    return true;
}
