#include "rights/service/Service.h"

#include "rights/Protocol.h"

#include <algorithm>
#include <cstdio>

namespace rights {

namespace {

constexpr char kNamesLost[] = "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";

constexpr sd_bus_vtable kCalls[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Authorize", "", "", (handle<Service, &Service::onAuthorize>), SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Execute", "sas", "h", (handle<Service, &Service::onExecute>), SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

} // namespace

void log(const std::string& text) {
    fprintf(stderr, "pellomar-downloader-rights: %s\n", text.c_str());
}

int Service::run() {
    sd_event* loop = nullptr;
    sd_bus* bus = nullptr;
    int result = sd_event_new(&loop);
    loop_.reset(loop);
    const auto then = [&](auto function, auto... arguments) {
        result = result < 0 ? result : function(arguments...);
    };
    then(sd_bus_open_system, &bus);
    bus_.reset(bus);
    then(sd_bus_set_method_call_timeout, bus, UINT64_MAX); // the user may take any time to type the password
    then(sd_bus_set_exit_on_disconnect, bus, 1);
    then(sd_bus_attach_event, bus, loop, SD_EVENT_PRIORITY_NORMAL);
    then(sd_bus_add_object_vtable, bus, nullptr, kObjectPath, kBusName, kCalls, this);
    then(sd_bus_add_match, bus, nullptr, kNamesLost, handle<Service, &Service::onNameLost>, this);
    then(sd_bus_request_name, bus, kBusName, 0);
    while (result >= 0 && sd_event_get_state(loop) != SD_EVENT_FINISHED && !isOver()) {
        result =
            sd_event_run(loop, calls_.empty() ? static_cast<std::uint64_t>(idleTime_.count()) : UINT64_MAX);
    }
    return result;
}

int Service::onAuthorize(sd_bus_message* message) {
    const char* const name = sd_bus_message_get_sender(message);
    return calls_.try_emplace(name, *this, name).first->second.authorize(message);
}

int Service::onExecute(sd_bus_message* message) {
    const auto place = calls_.find(sd_bus_message_get_sender(message));
    return place != calls_.end() && place->second.isGranted()
               ? place->second.execute(message)
               : sd_bus_reply_method_errorf(message, kErrorNotAuthorized, "not authorized");
}

int Service::onNameLost(sd_bus_message* signal) {
    // The match rule does not check the sender of a signal that is sent directly to this connection.
    const char* name = nullptr;
    if (std::string_view(sd_bus_message_get_sender(signal)) == kBusDaemon &&
        sd_bus_message_read(signal, "s", &name) > 0) {
        end(name, kErrorRefused, "the connection has ended");
    }
    return 0;
}

long Service::questionsOf(uid_t user) const {
    return std::ranges::count_if(calls_, [user](const auto& call) { return call.second.isQuestionOf(user); });
}

void Service::end(const std::string& name, const char* error, const std::string& reason) {
    if (const auto node = calls_.extract(name); !node.empty()) {
        lastUse_ = std::chrono::steady_clock::now();
        node.mapped().end(error, reason);
    }
}

bool Service::isOver() {
    if (!calls_.empty() || std::chrono::steady_clock::now() < lastUse_ + idleTime_) {
        return false;
    }
    // Calls that arrived before the name was released are served; later ones start a new process.
    sd_bus_release_name(bus_.get(), kBusName);
    while (sd_bus_process(bus_.get(), nullptr) > 0) {
    }
    return calls_.empty() || sd_bus_request_name(bus_.get(), kBusName, 0) < 0;
}

} // namespace rights
