// Makes the authorization calls that its standard input names, one a line, and prints each result: create,
// copy FLAGS, execute TOOL<tab>ARGUMENT..., read, free, forget (keeps the authorization unfreed), dumpable.
// Its one argument says which thread makes the calls: main or worker.
#include "platform/Authorization.h"
#include "platform/MainThread.h"

#include <QCoreApplication>
#include <QTimer>

#include <sys/prctl.h>

#include <iostream>
#include <sstream>
#include <thread>
#include <utility>

namespace {

AuthorizationRef authorization = nullptr;
std::vector<AuthorizationRef> forgotten;
FILE* output = nullptr;

// Tells whether the main thread served its events meanwhile, where the call was made there.
std::string copy(unsigned flags) {
    int turns = 0;
    QTimer timer;
    if (MainThread::isCurrent()) {
        QObject::connect(&timer, &QTimer::timeout, [&turns] { ++turns; });
        timer.start(10);
    }
    const OSStatus status = AuthorizationCopyRights(authorization, "com.norvik.PellomarDownloader", flags);
    return std::to_string(status) + (turns > 0 ? " alive" : "");
}

std::string execute(std::istringstream& line) {
    std::vector<std::string> words;
    for (std::string word; std::getline(line, word, '\t');) {
        words.push_back(word);
    }
    const OSStatus status = AuthorizationExecuteWithPrivileges(authorization, words.at(0), 0,
                                                               {words.begin() + 1, words.end()}, &output);
    return std::to_string(status) + (output == nullptr ? " no pipe" : "");
}

std::string readOutput() {
    std::string text;
    for (int character = 0; (character = fgetc(output)) != EOF;) {
        text += character == '\n' ? '\t' : static_cast<char>(character);
    }
    fclose(std::exchange(output, nullptr));
    return text;
}

std::string answer(const std::string& verb, std::istringstream& line) {
    if (verb == "create") {
        return std::to_string(AuthorizationCreate(&authorization));
    }
    if (verb == "copy") {
        unsigned flags = 0;
        line >> flags;
        return copy(flags);
    }
    if (verb == "execute") {
        return execute(line);
    }
    if (verb == "read") {
        return readOutput();
    }
    if (verb == "free") {
        return std::to_string(AuthorizationFree(std::exchange(authorization, nullptr), 8));
    }
    if (verb == "forget") {
        forgotten.push_back(std::exchange(authorization, nullptr));
        return "0";
    }
    return std::to_string(prctl(PR_GET_DUMPABLE));
}

void serve() {
    for (std::string text; std::getline(std::cin, text);) {
        std::istringstream line(text);
        std::string verb;
        std::getline(line, verb, ' ');
        std::cout << answer(verb, line) << "\n" << std::flush;
    }
    AuthorizationFree(authorization, 8);
    for (auto* const each : forgotten) {
        AuthorizationFree(each, 8);
    }
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    MainThread::attach();
    if (argc > 1 && std::string(argv[1]) == "main") {
        QTimer::singleShot(0, [] {
            serve();
            QCoreApplication::quit();
        });
        return QCoreApplication::exec();
    }
    std::thread(serve).join();
    return 0;
}
