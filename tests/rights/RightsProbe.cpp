// Makes the authorization calls that its standard input names, one a line, and prints each result: create,
// ask, TOOL<tab>ARGUMENT... (prints what the tool printed, too), keep (leaves the authorization unfreed),
// free. Its one argument says which thread makes the calls: main or worker.
#include "platform/MainThread.h"
#include "rights/Authorization.h"

#include <QCoreApplication>
#include <QStringList>
#include <QTimer>

#include <iostream>
#include <thread>

namespace {

AuthorizationOwner owner;
std::vector<AuthorizationOwner> kept;

std::string run(const QStringList& words) {
    std::vector<std::string> arguments;
    for (const QString& word : words) {
        arguments.push_back(word.toStdString());
    }
    FILE* output = nullptr;
    std::string text = std::to_string(AuthorizationExecuteWithPrivileges(
        owner.get(), arguments.front(), 0, {arguments.begin() + 1, arguments.end()}, &output));
    if (output != nullptr) {
        for (int character = 0; (character = fgetc(output)) != EOF;) {
            text += character == '\n' ? '\t' : static_cast<char>(character);
        }
        fclose(output);
    }
    return text;
}

std::string ask() {
    return std::to_string(AuthorizationCopyRights(owner.get(), "com.norvik.PellomarDownloader", 19));
}

std::string answer(const std::string& line) {
    if (line == "create") {
        AuthorizationRef created = nullptr;
        const OSStatus status = AuthorizationCreate(&created);
        owner.reset(created);
        return std::to_string(status);
    }
    if (line == "keep") {
        kept.push_back(std::move(owner));
    } else if (line == "free") {
        owner.reset();
    } else {
        return line == "ask" ? ask() : run(QString::fromStdString(line).split('\t'));
    }
    return line;
}

void serve() {
    for (std::string line; std::getline(std::cin, line);) {
        std::cout << answer(line) << "\n" << std::flush;
    }
    owner.reset();
    kept.clear();
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    MainThread::attach();
    const bool isMain = argc > 1 && std::string(argv[1]) == "main";
    QTimer::singleShot(0, [isMain] {
        isMain ? serve() : std::thread(serve).join();
        QCoreApplication::quit();
    });
    return QCoreApplication::exec();
}
