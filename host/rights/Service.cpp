#include "rights/Service.h"

#include "base/RightsProtocol.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace rights {

namespace {

constexpr char kPolkit[] = "org.freedesktop.PolicyKit1";
constexpr char kAuthority[] = "org.freedesktop.PolicyKit1.Authority";
constexpr char kAuthorityPath[] = "/org/freedesktop/PolicyKit1/Authority";
constexpr char kBusDaemon[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr int kQuestionsOfOneUser = 4; // the bus allows 128 of all users together
constexpr char kNamesLost[] = "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";

template <int (Service::*method)(sd_bus_message*)>
int call(sd_bus_message* message, void* service, sd_bus_error* /*error*/) {
    return (static_cast<Service*>(service)->*method)(message);
}

constexpr sd_bus_vtable kCalls[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Authorize", "", "", call<&Service::onAuthorize>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Execute", "sas", "h", call<&Service::onExecute>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Release", "", "", call<&Service::onRelease>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

} // namespace

int Service::run() {
    sd_event* loop = nullptr;
    sd_bus* bus = nullptr;
    sd_event_source* timer = nullptr;
    int result = sd_event_new(&loop);
    loop_.reset(loop);
    const auto then = [&](auto function, auto... arguments) {
        result = result < 0 ? result : function(arguments...);
    };
    then(sd_bus_open_system, &bus);
    bus_.reset(bus);
    const auto onTimer = [](sd_event_source*, std::uint64_t, void* service) {
        return static_cast<Service*>(service)->onIdle();
    };
    then(sd_event_add_time_relative, loop, &timer, CLOCK_MONOTONIC, idleTime_.count(), 0, onTimer, this);
    idleTimer_.reset(timer);
    then(sd_bus_set_method_call_timeout, bus, UINT64_MAX); // polkit answers when the user has
    then(sd_bus_set_exit_on_disconnect, bus, 1);
    then(sd_bus_attach_event, bus, loop, SD_EVENT_PRIORITY_NORMAL);
    then(sd_bus_add_object_vtable, bus, nullptr, kObjectPath, kBusName, kCalls, this);
    then(sd_bus_add_match, bus, nullptr, kNamesLost, call<&Service::onNameLost>, this);
    then(sd_bus_request_name, bus, kBusName, 0);
    then(sd_event_loop, loop);
    return result;
}

int Service::onAuthorize(sd_bus_message* message) {
    const auto [place, isNew] = callers_.try_emplace(sd_bus_message_get_sender(message));
    const std::string& name = place->first;
    Caller& caller = place->second;
    if (!isNew) {
        return caller.isAuthorized && caller.waiting == nullptr
                   ? sd_bus_reply_method_return(message, nullptr)
                   : refuse(message, kErrorRefused, "an earlier call is not answered yet");
    }
    caller.service = this;
    caller.waiting.reset(sd_bus_message_ref(message));
    // Not sd_bus_query_sender_creds: while that waits, all messages that arrive are kept in memory.
    sd_bus_slot* question = nullptr;
    if (sd_bus_call_method_async(bus_.get(), &question, kBusDaemon, kBusPath, kBusDaemon,
                                 "GetConnectionUnixUser", onUser, &*place, "s", name.c_str()) < 0) {
        endGrant(name, kErrorRefused, "the bus cannot be asked");
        return 1;
    }
    caller.question.reset(question);
    return 1;
}

int Service::onUser(sd_bus_message* answer, void* data, sd_bus_error* /*error*/) {
    auto& [name, caller] = *static_cast<Callers::value_type*>(data);
    Service& service = *caller.service;
    const auto isUndecided = [&](const auto& other) {
        return other.second.user == caller.user && other.second.waiting != nullptr &&
               !other.second.isAuthorized;
    };
    sd_bus_slot* question = nullptr;
    if (sd_bus_message_read(answer, "u", &caller.user) <= 0) {
        service.endGrant(name, kErrorRefused, "the connection has no user");
    } else if (std::ranges::count_if(service.callers_, isUndecided) > kQuestionsOfOneUser) {
        service.endGrant(name, kErrorRefused, "this user has too many open questions");
    } else if (sd_bus_call_method_async(
                   service.bus_.get(), &question, kPolkit, kAuthorityPath, kAuthority, "CheckAuthorization",
                   onPolkitAnswer, data, "(sa{sv})sa{ss}us", "system-bus-name", 1, "name", "s", name.c_str(),
                   kBusName, 0, sd_bus_message_get_allow_interactive_authorization(caller.waiting.get()),
                   name.c_str()) < 0) {
        service.endGrant(name, kErrorRefused, "polkit cannot be asked");
    } else {
        caller.question.reset(question);
    }
    return 0;
}

int Service::onPolkitAnswer(sd_bus_message* answer, void* data, sd_bus_error* /*error*/) {
    auto& [name, caller] = *static_cast<Callers::value_type*>(data);
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
    caller.isAuthorized = isAuthorized != 0;
    if (caller.isAuthorized) {
        // Whether the application is installed is known only once no attempt is replacing it.
        std::error_code ignored;
        caller.leftOver = std::make_unique<Watch>(
            caller.service->loop_.get(), Transaction::endLeftOver(ignored).state,
            [service = caller.service, id = name](int) { service->answerAuthorized(id); });
    } else {
        caller.service->endGrant(name, isDismissed ? kErrorCanceled : kErrorRefused,
                                 "polkit does not allow it");
    }
    return 0;
}

void Service::answerAuthorized(const std::string& name) {
    Caller& caller = callers_.at(name);
    caller.leftOver.reset();
    sd_bus_reply_method_return(caller.waiting.get(), nullptr);
    caller.waiting.reset();
}

void Service::endGrant(const std::string& name, const char* error, const std::string& reason) {
    const auto node = callers_.extract(name);
    if (node.empty()) {
        return;
    }
    startIdleTime();
    if (node.mapped().waiting != nullptr) {
        // Without effect where polkit has answered.
        sd_bus_call_method_async(bus_.get(), nullptr, kPolkit, kAuthorityPath, kAuthority,
                                 "CancelCheckAuthorization", nullptr, nullptr, "s", node.key().c_str());
        refuse(node.mapped().waiting.get(), error, reason);
    }
    if (node.mapped().request != nullptr) {
        refuse(node.mapped().request.get(), kErrorNotAuthorized, reason);
    }
}

int Service::onRelease(sd_bus_message* message) {
    endGrant(sd_bus_message_get_sender(message), kErrorRefused, "released by the caller");
    return sd_bus_reply_method_return(message, nullptr);
}

int Service::onNameLost(sd_bus_message* signal) {
    // The match rule does not check the sender of a signal that is sent directly to this connection.
    const char* const sender = sd_bus_message_get_sender(signal);
    const char* name = nullptr;
    if (sender != nullptr && strcmp(sender, kBusDaemon) == 0 && sd_bus_message_read(signal, "s", &name) > 0) {
        endGrant(name, kErrorRefused, "the connection has ended");
    }
    return 0;
}

void Service::startIdleTime() {
    sd_event_source_set_time_relative(idleTimer_.get(), static_cast<std::uint64_t>(idleTime_.count()));
    sd_event_source_set_enabled(idleTimer_.get(), SD_EVENT_ONESHOT);
}

int Service::onIdle() {
    if (!isIdle()) {
        return 0; // the timer is restarted when the last grant, tool or transaction ends
    }
    // Calls that arrived before the name was released are served; later ones start a new process.
    sd_bus_release_name(bus_.get(), kBusName);
    while (sd_bus_process(bus_.get(), nullptr) > 0) {
    }
    return isIdle() ? sd_event_exit(loop_.get(), 0) : sd_bus_request_name(bus_.get(), kBusName, 0);
}

int Service::refuse(sd_bus_message* message, const char* error, const std::string& reason) {
    fprintf(stderr, "pellomar-downloader-rights: refused %s to %s: %s (%s)\n",
            sd_bus_message_get_member(message), sd_bus_message_get_sender(message), reason.c_str(), error);
    return sd_bus_reply_method_errorf(message, error, "%s", reason.c_str());
}

} // namespace rights
