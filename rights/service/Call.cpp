#include "rights/Protocol.h"
#include "rights/service/Service.h"

#include <sys/epoll.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

namespace rights {

namespace {

constexpr int kQuestionsOfOneUser = 4; // the bus allows 128 of all users together

std::vector<std::string> readLine(sd_bus_message* message) {
    const char* word = "";
    sd_bus_message_read(message, "s", &word);
    std::vector<std::string> line{word};
    sd_bus_message_enter_container(message, 'a', "s");
    while (sd_bus_message_read(message, "s", &word) > 0) {
        line.emplace_back(word);
    }
    return line;
}

} // namespace

// Call this last in a method: if the question cannot be asked, this object is gone.
template <typename... Arguments>
void Call::ask(sd_bus_message_handler_t onAnswer, const char* destination, const char* path,
               const char* interface, const char* member, const char* types, Arguments... arguments) {
    sd_bus_slot* question = nullptr;
    const int result = sd_bus_call_method_async(service_.bus(), &question, destination, path, interface,
                                                member, onAnswer, this, types, arguments...);
    question_.reset(question);
    if (result < 0) {
        service_.end(name_, kErrorRefused, std::string(destination) + " cannot be asked");
    }
}

int Call::authorize(sd_bus_message* message) {
    if (state_ >= State::Ready) {
        return sd_bus_reply_method_return(message, nullptr);
    }
    if (state_ != State::New) {
        return sd_bus_reply_method_errorf(message, kErrorRefused, "an earlier call is not answered yet");
    }
    message_.reset(sd_bus_message_ref(message));
    state_ = State::Identifying;
    // Not sd_bus_query_sender_creds: while that waits, all messages that arrive are kept in memory.
    ask(handle<Call, &Call::onUser>, kBusDaemon, kBusPath, kBusDaemon, "GetConnectionUnixUser", "s",
        name_.c_str());
    return 1;
}

int Call::onUser(sd_bus_message* answer) {
    if (sd_bus_message_read(answer, "u", &user_) <= 0) {
        service_.end(name_, kErrorRefused, "the connection has no user");
    } else if (service_.questionsOf(user_) >= kQuestionsOfOneUser) {
        service_.end(name_, kErrorRefused, "this user has too many open questions");
    } else {
        state_ = State::Asking;
        ask(handle<Call, &Call::onPolkitAnswer>, kPolkit, kAuthorityPath, kAuthority, "CheckAuthorization",
            "(sa{sv})sa{ss}us", "system-bus-name", 1, "name", "s", name_.c_str(), kBusName, 0,
            sd_bus_message_get_allow_interactive_authorization(message_.get()), name_.c_str());
    }
    return 0;
}

int Call::onPolkitAnswer(sd_bus_message* answer) {
    int isAuthorized = 0;
    bool isDismissed = false;
    const char *key = nullptr, *value = nullptr;
    if (sd_bus_message_enter_container(answer, 'r', "bba{ss}") > 0 &&
        sd_bus_message_read(answer, "bb", &isAuthorized, nullptr) > 0 &&
        sd_bus_message_enter_container(answer, 'a', "{ss}") > 0) {
        while (sd_bus_message_read(answer, "{ss}", &key, &value) > 0) {
            isDismissed = isDismissed || std::string_view(key) == "polkit.dismissed";
        }
    }
    if (isAuthorized != 0) {
        // Whether the application is installed is known only once no attempt is replacing it.
        await(State::AwaitingEarlier, endEarlierAttempts());
    } else {
        service_.end(name_, isDismissed ? kErrorCanceled : kErrorRefused, "polkit does not allow it");
    }
    return 0;
}

// If there is nothing to wait for, calls onReadable immediately.
void Call::await(State state, FileDescriptor descriptor) {
    state_ = state;
    awaited_ = std::move(descriptor);
    const auto onEvent = [](sd_event_source*, int, std::uint32_t, void* call) {
        static_cast<Call*>(call)->onReadable();
        return 0;
    };
    sd_event_source* source = nullptr;
    if (sd_event_add_io(service_.loop(), &source, awaited_.get(), EPOLLIN, onEvent, this) < 0) {
        awaited_.reset();
        onReadable();
    } else {
        event_.reset(source);
    }
}

void Call::onReadable() {
    event_.reset();
    if (state_ == State::AwaitingEarlier) {
        reply(State::Ready);
    } else if (GrantedCommands::isSetAside(awaited_.get())) {
        startTool();
    } else {
        log("/bin/rm is not run, since the application is not set aside");
        reply(State::Ready, GrantedCommands::outputOfNoRemoval());
    }
}

int Call::execute(sd_bus_message* message) {
    if (message_) {
        return sd_bus_reply_method_errorf(message, kErrorNotAllowed, "another command is being started");
    }
    message_.reset(sd_bus_message_ref(message));
    proceed();
    return 1;
}

void Call::proceed() {
    if (state_ != State::Ready || !message_) {
        return;
    }
    line_ = readLine(message_.get());
    std::string refusal;
    const auto command = commands_.take(line_, refusal);
    if (!command) {
        refuse(kErrorNotAllowed, refusal);
    } else if (command_ = *command; command_ != PrivilegedCommand::RemoveApplication) {
        startTool();
    } else {
        FileDescriptor answer = commands_.setAside();
        if (!answer.isOpen()) {
            log(std::string("the application cannot be set aside: ") + strerror(errno));
        }
        await(State::SettingAside, std::move(answer));
    }
}

void Call::startTool() {
    FileDescriptor output;
    const pid_t tool = commands_.start(command_, line_, user_, output);
    if (tool < 0) {
        state_ = State::Ready;
        refuse(kErrorNotStarted, line_.front() + ": " + strerror(errno));
        return;
    }
    // The arguments are not logged: the package's path comes from the caller and may hold any characters.
    log("started " + line_.front() + " as process " + std::to_string(tool) + " for " + name_ + " of user " +
        std::to_string(user_));
    reply(State::Running, output);
    const auto onExit = [](sd_event_source*, const siginfo_t* end, void* call) {
        static_cast<Call*>(call)->onToolExit(*end);
        return 0;
    };
    sd_event_source* source = nullptr;
    if (sd_event_add_child(service_.loop(), &source, tool, WEXITED, onExit, this) < 0) {
        service_.end(name_, kErrorRefused, "the end of the tool cannot be seen");
    } else {
        event_.reset(source);
    }
}

void Call::onToolExit(const siginfo_t& end) {
    if (command_ == PrivilegedCommand::InstallPackage && (end.si_code != CLD_EXITED || end.si_status != 0)) {
        commands_.endInstallation();
    }
    event_.reset();
    state_ = State::Ready;
    proceed();
}

void Call::reply(State next, const FileDescriptor& output) {
    state_ = next;
    sd_bus_reply_method_return(std::exchange(message_, nullptr).get(), output.isOpen() ? "h" : nullptr,
                               output.get());
}

void Call::end(const char* error, const std::string& reason) {
    if (state_ == State::Asking) {
        // Has no effect if polkit has answered already.
        sd_bus_call_method_async(service_.bus(), nullptr, kPolkit, kAuthorityPath, kAuthority,
                                 "CancelCheckAuthorization", nullptr, nullptr, "s", name_.c_str());
    }
    if (message_) {
        refuse(error, reason);
    }
}

// Only refusals of granted callers are logged: anybody can cause any number of others.
int Call::refuse(const char* error, const std::string& reason) {
    if (state_ >= State::Ready) {
        log("refused " + name_ + ": " + reason);
    }
    return sd_bus_reply_method_errorf(std::exchange(message_, nullptr).get(), error, "%s", reason.c_str());
}

} // namespace rights
