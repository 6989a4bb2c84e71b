// How a command is run: its request waits for the caller's previous tool and, before a removal, until the
// application is set aside; then the tool is started and the request answered.
#include "base/RightsProtocol.h"
#include "rights/Service.h"

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

namespace rights {

int Service::onExecute(sd_bus_message* message) {
    const auto place = callers_.find(sd_bus_message_get_sender(message));
    if (place == callers_.end() || !place->second.isAuthorized) {
        return refuse(message, kErrorNotAuthorized, "not authorized");
    }
    auto& [name, caller] = *place;
    const char* word = "";
    sd_bus_message_read(message, "s", &word);
    std::vector<std::string> line{word};
    sd_bus_message_enter_container(message, 'a', "s");
    while (sd_bus_message_read(message, "s", &word) > 0) {
        line.emplace_back(word);
    }
    sd_bus_message_exit_container(message);
    if (caller.request != nullptr) {
        return refuse(message, kErrorNotAllowed, "another command is being started");
    }
    caller.line = std::move(line);
    caller.request.reset(sd_bus_message_ref(message));
    proceed(std::string(name));
    return 1;
}

void Service::proceed(const std::string& name) {
    const auto place = callers_.find(name);
    if (place == callers_.end() || place->second.request == nullptr || place->second.tool != 0) {
        return;
    }
    Caller& caller = place->second;
    if (std::string refusal; !caller.command) {
        caller.command = caller.commands.take(caller.line, refusal);
        if (!caller.command) {
            refuse(std::exchange(caller.request, nullptr).get(), kErrorNotAllowed, refusal);
            return;
        }
    }
    const PrivilegedCommand command = *caller.command;
    if (command == PrivilegedCommand::RemoveApplication && !caller.isSetAside) {
        beginTransaction(name, caller);
    } else {
        startTool(name, caller, command);
    }
}

void Service::beginTransaction(const std::string& name, Caller& caller) {
    std::error_code failure;
    Transaction transaction = Transaction::begin(failure);
    if (failure) {
        fprintf(stderr, "pellomar-downloader-rights: the application cannot be set aside: %s\n",
                failure.message().c_str());
    }
    caller.commands.hold = std::move(transaction.hold);
    const unsigned number = ++lastTransaction_;
    caller.transaction = number;
    transactions_[number] =
        std::make_unique<Watch>(loop_.get(), std::move(transaction.state),
                                [this, name, number](int state) { onTransaction(name, number, state); });
}

void Service::onTransaction(const std::string& name, unsigned number, int state) {
    const bool isSetAside = Transaction::isSetAside(state);
    const auto place = callers_.find(name);
    if (place == callers_.end() || place->second.transaction != number || place->second.isSetAside) {
        transactions_.erase(number);
        startIdleTime();
        return;
    }
    Caller& caller = place->second;
    caller.isSetAside = true;
    if (isSetAside) {
        proceed(name);
        return;
    }
    caller.command.reset();
    const FileDescriptor output = GrantedCommands::outputOfNoRemoval();
    sd_bus_reply_method_return(std::exchange(caller.request, nullptr).get(), "h", output.get());
}

void Service::startTool(const std::string& name, Caller& caller, PrivilegedCommand command) {
    const BusMessage request = std::move(caller.request);
    std::error_code failure;
    FileDescriptor output;
    caller.tool = caller.commands.start(command, caller.line, caller.user, output, failure);
    if (caller.tool < 0) {
        caller.tool = 0;
        caller.command.reset();
        refuse(request.get(), kErrorNotStarted, caller.line.front() + ": " + failure.message());
        return;
    }
    // The arguments are not logged: the package's path comes from the caller and may hold any characters.
    fprintf(stderr, "pellomar-downloader-rights: started %s as process %d for %s of user %u\n",
            caller.line.front().c_str(), static_cast<int>(caller.tool), name.c_str(), caller.user);
    FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, caller.tool, 0)));
    tools_[caller.tool] = std::make_unique<Watch>(
        loop_.get(), std::move(process), [this, name, pid = caller.tool](int) { onToolExit(name, pid); });
    sd_bus_reply_method_return(request.get(), "h", output.get());
}

void Service::onToolExit(const std::string& name, pid_t process) {
    siginfo_t end{};
    waitid(P_PID, static_cast<id_t>(process), &end, WEXITED);
    tools_.erase(process);
    startIdleTime();
    const auto place = callers_.find(name);
    if (place == callers_.end() || place->second.tool != process) {
        return;
    }
    Caller& caller = place->second;
    caller.tool = 0;
    const auto command = std::exchange(caller.command, std::nullopt);
    if (command == PrivilegedCommand::InstallPackage && (end.si_code != CLD_EXITED || end.si_status != 0)) {
        caller.commands.endInstallation();
    }
    proceed(name);
}

} // namespace rights
