// Goes through the authorization calls as it is told, one line of standard input each, and prints each
// result: create, copy, copy-silently, execute TOOL<tab>ARGUMENT..., read, free, forget.
// Its one argument says which thread makes the calls: main or worker.
#include "platform/Authorization.h"
#include "platform/MainThread.h"

#include <QCoreApplication>
#include <QTimer>

#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr char kRight[] = "com.norvik.PellomarDownloader";

class Probe {
  public:
    Probe() = default;
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;
    ~Probe() {
        AuthorizationFree(authorization_, 8);
        for (auto* const authorization : forgotten_) {
            AuthorizationFree(authorization, 8);
        }
    }

    void serve() {
        for (std::string line; std::getline(std::cin, line);) {
            const std::size_t blank = line.find(' ');
            const std::string verb = line.substr(0, blank);
            std::cout << verb << ' ' << obey(verb, blank == std::string::npos ? "" : line.substr(blank + 1))
                      << std::endl;
        }
    }

  private:
    std::string obey(const std::string& verb, const std::string& rest) {
        if (verb == "create") {
            return std::to_string(AuthorizationCreate(&authorization_));
        }
        if (verb == "execute") {
            return execute(rest);
        }
        if (verb == "read") {
            return read();
        }
        if (verb == "free") {
            return std::to_string(AuthorizationFree(std::exchange(authorization_, nullptr), 8));
        }
        if (verb == "forget") {
            forgotten_.push_back(std::exchange(authorization_, nullptr));
            return "0";
        }
        return copy(verb);
    }

    // Tells whether the main thread served its events meanwhile, when the call was made there.
    std::string copy(const std::string& verb) {
        int turns = 0;
        QTimer timer;
        if (MainThread::isCurrent()) {
            QObject::connect(&timer, &QTimer::timeout, [&turns] { ++turns; });
            timer.start(10);
        }
        const unsigned flags = verb == "copy-silently" ? 18 : 19;
        const OSStatus status = AuthorizationCopyRights(authorization_, kRight, flags);
        return std::to_string(status) + (turns > 0 ? " alive" : "");
    }

    std::string execute(const std::string& rest) {
        std::vector<std::string> words;
        std::istringstream stream(rest);
        for (std::string word; std::getline(stream, word, '\t');) {
            words.push_back(word);
        }
        const OSStatus status = AuthorizationExecuteWithPrivileges(authorization_, words.at(0), 0,
                                                                   {words.begin() + 1, words.end()}, &pipe_);
        return std::to_string(status) + (pipe_ == nullptr ? " no pipe" : "");
    }

    std::string read() {
        std::string output;
        char block[1024];
        while (const std::size_t count = fread(block, 1, sizeof block, pipe_)) {
            output.append(block, count);
        }
        fclose(std::exchange(pipe_, nullptr));
        for (char& character : output) {
            character = character == '\n' ? '\t' : character;
        }
        return output;
    }

    AuthorizationRef authorization_ = nullptr;
    std::vector<AuthorizationRef> forgotten_;
    FILE* pipe_ = nullptr;
};

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    MainThread::attach();
    Probe probe;
    if (argc > 1 && std::string_view(argv[1]) == "main") {
        // A program can be quit only from within its loop.
        QTimer begin;
        QObject::connect(&begin, &QTimer::timeout, [&] {
            probe.serve();
            QCoreApplication::quit();
        });
        begin.setSingleShot(true);
        begin.start(0);
        return QCoreApplication::exec();
    }
    std::thread worker([&] { probe.serve(); });
    worker.join();
    return 0;
}
