// The one program of the downloader that runs as root. The system bus starts it on demand; it runs the four
// commands of an installation for those whom polkit allows it, and leaves when nobody has needed it for a
// while: a minute, or the seconds of its one argument.
//
// Who calls is what the bus says. An authorization belongs to one connection: no other can use it, and it
// ends when the connection ends. One loop serves everybody and never waits for a person.
#include "base/RightsProtocol.h"
#include "base/RootEnvironment.h"
#include "rights/Command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

using namespace rights;

namespace {

constexpr char kPolkit[] = "org.freedesktop.PolicyKit1";
constexpr char kAuthority[] = "org.freedesktop.PolicyKit1.Authority";
constexpr char kAuthorityPath[] = "/org/freedesktop/PolicyKit1/Authority";

struct Caller {
    uid_t user = 0;
    bool isAuthorized = false;
    sd_bus_slot* question = nullptr;
    sd_bus_message* waiting = nullptr; // its Authorize call, while polkit is asked
    ~Caller() {
        sd_bus_slot_unref(question);
        sd_bus_message_unref(waiting);
    }
};

struct Tool {
    std::string name;
    int output = -1; // held until the tool has ended, to say how
    sd_event_source* exit = nullptr;
    ~Tool() {
        sd_event_source_disable_unref(exit);
        close(output);
    }
};

sd_event* loop = nullptr;
sd_bus* bus = nullptr;
sd_event_source* idleTimer = nullptr;
std::uint64_t idleTime = 0;            // microseconds
std::map<std::string, Caller> callers; // by the name that the bus gave the connection
std::map<pid_t, Tool> tools;

void startIdleTime() {
    sd_event_source_set_time_relative(idleTimer, idleTime);
    sd_event_source_set_enabled(idleTimer, SD_EVENT_ONESHOT);
}

int refuse(sd_bus_message* call, const char* error, const std::string& reason) {
    fprintf(stderr, "pellomar-downloader-rights: refused %s to %s: %s (%s)\n",
            sd_bus_message_get_member(call), sd_bus_message_get_sender(call), reason.c_str(), error);
    return sd_bus_reply_method_errorf(call, error, "%s", reason.c_str());
}

void forget(const std::string& name, const char* error = kErrorRefused, const char* reason = "given up") {
    const auto node = callers.extract(name);
    if (node.empty()) {
        return;
    }
    startIdleTime();
    if (node.mapped().waiting != nullptr) {
        // Polkit does not mind where it has answered already.
        sd_bus_call_method_async(bus, nullptr, kPolkit, kAuthorityPath, kAuthority,
                                 "CancelCheckAuthorization", nullptr, nullptr, "s", name.c_str());
        refuse(node.mapped().waiting, error, reason);
    }
}

int onAnswer(sd_bus_message* answer, void* data, sd_bus_error* /*error*/) {
    auto& [name, caller] = *static_cast<decltype(callers)::value_type*>(data);
    int isAuthorized = 0;
    bool isDismissed = false;
    const char *key = nullptr, *value = nullptr;
    if (sd_bus_message_enter_container(answer, 'r', "bba{ss}") > 0 &&
        sd_bus_message_read(answer, "bb", &isAuthorized, nullptr) > 0 &&
        sd_bus_message_enter_container(answer, 'a', "{ss}") > 0) {
        while (sd_bus_message_read(answer, "{ss}", &key, &value) > 0) {
            isDismissed = isDismissed || strcmp(key, "polkit.dismissed") == 0;
        }
    }
    caller.isAuthorized = isAuthorized != 0;
    if (caller.isAuthorized) {
        sd_bus_reply_method_return(caller.waiting, nullptr);
        caller.waiting = sd_bus_message_unref(caller.waiting);
    } else {
        forget(std::string(name), isDismissed ? kErrorCanceled : kErrorRefused, "polkit does not allow it");
    }
    return 0;
}

int onAuthorize(sd_bus_message* call, void* /*data*/, sd_bus_error* /*error*/) {
    const auto [place, isNew] = callers.try_emplace(sd_bus_message_get_sender(call));
    auto& [name, caller] = *place;
    if (!isNew) {
        return caller.isAuthorized ? sd_bus_reply_method_return(call, nullptr)
                                   : refuse(call, kErrorRefused, "is being asked already");
    }
    caller.waiting = sd_bus_message_ref(call);
    sd_bus_creds* credentials = nullptr;
    const bool isKnown = sd_bus_query_sender_creds(call, SD_BUS_CREDS_EUID, &credentials) >= 0 &&
                         sd_bus_creds_get_euid(credentials, &caller.user) >= 0;
    sd_bus_creds_unref(credentials);
    if (!isKnown || sd_bus_call_method_async(bus, &caller.question, kPolkit, kAuthorityPath, kAuthority,
                                             "CheckAuthorization", onAnswer, &*place, "(sa{sv})sa{ss}us",
                                             "system-bus-name", 1, "name", "s", name.c_str(), kBusName, 0,
                                             sd_bus_message_get_allow_interactive_authorization(call),
                                             name.c_str()) < 0) {
        forget(std::string(name), kErrorRefused, "polkit cannot be asked");
    }
    return 1;
}

int startTool(const std::vector<const char*>& words, int output, pid_t& process) {
    if (!isRootsAlone(words[0])) {
        return access(words[0], F_OK) == 0 ? EPERM : errno;
    }
    // The outcome is judged by words: the tools must speak the language that the words are in.
    const char* const environment[] = {kRootPath, "LC_ALL=C", kRootHome, nullptr};
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addchdir_np(&files, "/");
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
    const int failure = posix_spawn(&process, words[0], &files, nullptr, const_cast<char**>(words.data()),
                                    const_cast<char**>(environment));
    posix_spawn_file_actions_destroy(&files);
    return failure;
}

int onExit(sd_event_source* /*source*/, int descriptor, std::uint32_t /*events*/, void* data) {
    const auto& [process, tool] = *static_cast<decltype(tools)::value_type*>(data);
    siginfo_t how{};
    waitid(P_PIDFD, static_cast<id_t>(descriptor), &how, WEXITED);
    if (how.si_code != CLD_EXITED) {
        // Nobody is waited for: a full pipe is made larger.
        fcntl(tool.output, F_SETPIPE_SZ, 2 * fcntl(tool.output, F_GETPIPE_SZ));
        const std::string line = failureLine(tool.name, how.si_status);
        [[maybe_unused]] const ssize_t put = write(tool.output, line.data(), line.size());
    }
    tools.erase(pid_t{process});
    startIdleTime();
    return 0;
}

// Nothing but a pipe: the caller could have root write into something that looks at who writes.
bool isPipeToWriteTo(int descriptor) {
    struct stat status{};
    return fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode) &&
           (fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_WRONLY;
}

int onExecute(sd_bus_message* call, void* /*data*/, sd_bus_error* /*error*/) {
    const auto caller = callers.find(sd_bus_message_get_sender(call));
    if (caller == callers.end() || !caller->second.isAuthorized) {
        return refuse(call, kErrorNotAuthorized, "not authorized");
    }
    std::vector<const char*> words(1);
    int output = -1; // the call's own, closed with it
    sd_bus_message_read(call, "s", &words[0]);
    sd_bus_message_enter_container(call, 'a', "s");
    for (const char* word = nullptr; sd_bus_message_read(call, "s", &word) > 0;) {
        words.push_back(word);
    }
    sd_bus_message_exit_container(call);
    sd_bus_message_read(call, "h", &output);
    const std::string reason = whyRefused({words.begin(), words.end()}, caller->second.user);
    if (!reason.empty() || !isPipeToWriteTo(output)) {
        return refuse(call, kErrorNotAllowed, reason.empty() ? "the output is not a pipe" : reason);
    }
    words.push_back(nullptr);
    pid_t process = 0;
    if (const int failure = startTool(words, output, process); failure != 0) {
        return refuse(call, kErrorNotStarted, std::string(words[0]) + ": " + strerror(failure));
    }
    const auto place = tools.try_emplace(process).first;
    place->second.name = words[0];
    // Opened anew, so as to be non-blocking for us and not for the tool.
    const std::string pipe = "/proc/self/fd/" + std::to_string(output);
    place->second.output = open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    const auto descriptor = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    sd_event_add_io(loop, &place->second.exit, descriptor, EPOLLIN, onExit, &*place);
    sd_event_source_set_io_fd_own(place->second.exit, 1);
    return sd_bus_reply_method_return(call, nullptr);
}

int onRelease(sd_bus_message* call, void* /*data*/, sd_bus_error* /*error*/) {
    forget(sd_bus_message_get_sender(call));
    return sd_bus_reply_method_return(call, nullptr);
}

int onGone(sd_bus_message* signal, void* /*data*/, sd_bus_error* /*error*/) {
    const char* name = "";
    sd_bus_message_read(signal, "s", &name);
    forget(name);
    return 0;
}

int onIdle(sd_event_source* /*source*/, std::uint64_t /*time*/, void* /*data*/) {
    const auto isIdle = [] { return callers.empty() && tools.empty(); };
    if (!isIdle()) {
        return 0; // started again by what ends that
    }
    // Whoever called before the name was given back is still served; later calls start a new process.
    sd_bus_release_name(bus, kBusName);
    while (sd_bus_process(bus, nullptr) > 0) {
    }
    return isIdle() ? sd_event_exit(loop, 0) : sd_bus_request_name(bus, kBusName, 0);
}

constexpr sd_bus_vtable kCalls[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Authorize", "", "", onAuthorize, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Execute", "sash", "", onExecute, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Release", "", "", onRelease, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

constexpr char kConnectionsThatEnd[] =
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";

} // namespace

int main(int argc, char** argv) {
    idleTime = (argc > 1 ? strtoull(argv[1], nullptr, 10) : 60) * 1'000'000;
    umask(S_IWGRP | S_IWOTH);
    signal(SIGPIPE, [](int) {}); // not ignored, which the tools would inherit
    int result = sd_event_new(&loop);
    const auto then = [&](auto function, auto... arguments) {
        result = result < 0 ? result : function(arguments...);
    };
    then(sd_event_add_time_relative, loop, &idleTimer, CLOCK_MONOTONIC, idleTime, 0, onIdle, nullptr);
    then(sd_bus_open_system, &bus);
    then(sd_bus_set_method_call_timeout, bus, UINT64_MAX); // a person takes the time a person takes
    then(sd_bus_set_exit_on_disconnect, bus, 1);
    then(sd_bus_attach_event, bus, loop, SD_EVENT_PRIORITY_NORMAL);
    then(sd_bus_add_object_vtable, bus, nullptr, kObjectPath, kBusName, kCalls, nullptr);
    then(sd_bus_add_match, bus, nullptr, kConnectionsThatEnd, onGone, nullptr);
    then(sd_bus_request_name, bus, kBusName, 0);
    then(sd_event_loop, loop);
    if (result < 0) {
        fprintf(stderr, "pellomar-downloader-rights: %s\n", strerror(-result));
    }
    return result < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
