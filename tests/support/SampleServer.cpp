#include "support/SampleServer.h"

#include "platform/FileDescriptor.h"
#include "platform/FileManager.h"
#include "support/WaitUntil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <stdexcept>

namespace {

sockaddr_in loopback(in_port_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// Free at the time of asking.
in_port_t freePort() {
    const FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no free port");
    }
    return ntohs(address.sin_port);
}

bool accepts(in_port_t port) {
    const FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

} // namespace

SampleServer::SampleServer(const std::string& documents, const std::string& rate) {
    // Somebody else may take the port between our look at it and the server's.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (start(documents, rate)) {
            return;
        }
    }
    throw std::runtime_error("the sample server does not start: " +
                             readFile(folder_.path() + "/output").value_or("(no output)"));
}

SampleServer::~SampleServer() {
    stop();
}

bool SampleServer::start(const std::string& documents, const std::string& rate) {
    const in_port_t port = freePort();
    address_ = "127.0.0.1:" + std::to_string(port);
    const std::string prefix = folder_.path() + "/server";
    const FileDescriptor output(
        open((folder_.path() + "/output").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    process_ = fork();
    if (process_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(output.get(), STDOUT_FILENO);
        dup2(output.get(), STDERR_FILENO);
        execl(SAMPLE_SERVE, SAMPLE_SERVE, "--listen", address_.c_str(), "--rate", rate.c_str(),
              documents.c_str(), prefix.c_str(), nullptr);
        _exit(127);
    }
    bool ended = false;
    const bool settled = waitUntil([&] {
        ended = waitpid(process_, nullptr, WNOHANG) != 0;
        return ended || accepts(port);
    });
    if (ended) {
        process_ = -1;
    } else if (!settled) {
        stop();
    }
    return settled && !ended;
}

void SampleServer::stop() {
    if (process_ > 0) {
        kill(process_, SIGTERM);
        waitpid(process_, nullptr, 0);
        process_ = -1;
    }
}

std::string SampleServer::accessLog() const {
    return readFile(folder_.path() + "/server/logs/access.log").value_or("");
}
