#include "rights/service/Call.h"

#include "rights/Protocol.h"
#include "rights/service/Service.h"

#include <sys/epoll.h>

#include <string_view>
#include <utility>

namespace rights {

namespace {

constexpr char kPolkit[] = "org.freedesktop.PolicyKit1";
constexpr char kAuthority[] = "org.freedesktop.PolicyKit1.Authority";
constexpr char kAuthorityPath[] = "/org/freedesktop/PolicyKit1/Authority";
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

// The last thing that a method does: where the question cannot be asked, the call has ended.
template <typename... Arguments>
void Call::ask(int (Call::*onAnswer)(sd_bus_message*), State state, const char* destination, const char* path,
               const char* interface, const char* member, const char* types, Arguments... arguments) {
    state_ = state;
    onAnswer_ = onAnswer;
    const auto deliver = [](sd_bus_message* answer, void* data, sd_bus_error*) {
        auto& call = *static_cast<Call*>(data);
        return (call.*call.onAnswer_)(answer);
    };
    sd_bus_slot* question = nullptr;
    const int result = sd_bus_call_method_async(service_.bus(), &question, destination, path, interface,
                                                member, deliver, this, types, arguments...);
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
        return Service::refuse(message, kErrorRefused, "an earlier call is not answered yet");
    }
    message_.reset(sd_bus_message_ref(message));
    // Not sd_bus_query_sender_creds: while that waits, all messages that arrive are kept in memory.
    ask(&Call::onUser, State::Identifying, kBusDaemon, kBusPath, kBusDaemon, "GetConnectionUnixUser", "s",
        name_.c_str());
    return 1;
}

int Call::onUser(sd_bus_message* answer) {
    if (sd_bus_message_read(answer, "u", &user_) <= 0) {
        service_.end(name_, kErrorRefused, "the connection has no user");
    } else if (service_.questionsOf(user_) >= kQuestionsOfOneUser) {
        service_.end(name_, kErrorRefused, "this user has too many open questions");
    } else {
        ask(&Call::onPolkitAnswer, State::Asking, kPolkit, kAuthorityPath, kAuthority, "CheckAuthorization",
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
        await(endEarlierAttempts(), State::AwaitingEarlier, &Call::onEarlierEnded);
    } else {
        service_.end(name_, isDismissed ? kErrorCanceled : kErrorRefused, "polkit does not allow it");
    }
    return 0;
}

// Goes on at once where there is nothing to wait for. Otherwise `then` finds something to read in awaited_.
void Call::await(FileDescriptor descriptor, State state, void (Call::*then)()) {
    state_ = state;
    awaited_ = std::move(descriptor);
    then_ = then;
    const auto onReadable = [](sd_event_source*, int, std::uint32_t, void* data) {
        auto& call = *static_cast<Call*>(data);
        call.readable_.reset();
        (call.*call.then_)();
        return 0;
    };
    sd_event_source* source = nullptr;
    if (sd_event_add_io(service_.loop(), &source, awaited_.get(), EPOLLIN, onReadable, this) < 0) {
        awaited_.reset();
        (this->*then)();
    }
    readable_.reset(source);
}

void Call::onEarlierEnded() {
    state_ = State::Ready;
    sd_bus_reply_method_return(message_.get(), nullptr);
    message_.reset();
}

int Call::execute(sd_bus_message* message) {
    if (state_ < State::Ready) {
        return Service::refuse(message, kErrorNotAuthorized, "not authorized");
    }
    if (message_ != nullptr) {
        return Service::refuse(message, kErrorNotAllowed, "another command is being started");
    }
    message_.reset(sd_bus_message_ref(message));
    proceed();
    return 1;
}

void Call::proceed() {
    if (state_ != State::Ready || message_ == nullptr) {
        return;
    }
    line_ = readLine(message_.get());
    std::string refusal;
    std::error_code failure;
    const auto command = commands_.take(line_, refusal);
    if (!command) {
        refuse(kErrorNotAllowed, refusal);
        return;
    }
    command_ = *command;
    if (command_ != PrivilegedCommand::RemoveApplication) {
        startTool();
        return;
    }
    FileDescriptor answer = commands_.setAside(failure);
    if (failure) {
        log("the application cannot be set aside: " + failure.message());
    }
    await(std::move(answer), State::SettingAside, &Call::onSetAside);
}

void Call::onSetAside() {
    if (GrantedCommands::isSetAside(awaited_.get())) {
        startTool();
        return;
    }
    const FileDescriptor output = GrantedCommands::outputOfNoRemoval();
    log("/bin/rm is not run, since the application is not set aside");
    state_ = State::Ready;
    sd_bus_reply_method_return(message_.get(), "h", output.get());
    message_.reset();
}

void Call::startTool() {
    FileDescriptor output;
    std::error_code failure;
    tool_ = commands_.start(command_, line_, user_, output, failure);
    if (tool_ < 0) {
        state_ = State::Ready;
        refuse(kErrorNotStarted, line_.front() + ": " + failure.message());
        return;
    }
    // The arguments are not logged: the package's path comes from the caller and may hold any characters.
    log("started " + line_.front() + " as process " + std::to_string(tool_) + " for " + name_ + " of user " +
        std::to_string(user_));
    state_ = State::Running;
    sd_bus_reply_method_return(message_.get(), "h", output.get());
    message_.reset();
    if (!service_.watch(tool_)) {
        service_.end(name_, kErrorRefused, "the end of the tool cannot be seen");
    }
}

void Call::onToolExit(const siginfo_t& end) {
    state_ = State::Ready;
    if (command_ == PrivilegedCommand::InstallPackage && (end.si_code != CLD_EXITED || end.si_status != 0)) {
        commands_.endInstallation();
    }
    proceed();
}

void Call::end(const char* error, const std::string& reason) {
    if (state_ == State::Asking) {
        // Without effect where polkit has answered.
        sd_bus_call_method_async(service_.bus(), nullptr, kPolkit, kAuthorityPath, kAuthority,
                                 "CancelCheckAuthorization", nullptr, nullptr, "s", name_.c_str());
    }
    if (message_ != nullptr) {
        refuse(error, reason);
    }
}

// Only a granted caller's refusals are logged: anybody can have as many others as wanted.
int Call::refuse(const char* error, const std::string& reason) {
    if (state_ >= State::Ready) {
        log("refused " + name_ + ": " + reason);
    }
    return Service::refuse(std::exchange(message_, nullptr).get(), error, reason);
}

} // namespace rights
