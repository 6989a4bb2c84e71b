#pragma once

#include "rights/BusObjects.h"
#include "rights/service/Call.h"

#include <systemd/sd-event.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>

namespace rights {

/// A method of an object as a handler of messages.
template <typename Object, int (Object::*method)(sd_bus_message*)>
int handle(sd_bus_message* message, void* object, sd_bus_error* /*error*/) {
    return (static_cast<Object*>(object)->*method)(message);
}

/// Writes a line to standard error, which is the system's journal.
void log(const std::string& text);

/// Runs the commands of an installation as root for callers that polkit authorizes. The bus identifies the
/// caller; each connection has one Call. One thread and one event loop, which never blocks on a user, a tool
/// or a user's file system. SIGCHLD must be blocked.
class Service {
  public:
    explicit Service(std::chrono::seconds idleTime) : idleTime_(idleTime) {}

    /// Handles calls until the service has been idle for `idleTime`. Returns 0, or a negative errno value.
    int run();

    // Handlers of the three calls and of the signal that a connection has ended; run() calls them.
    int onAuthorize(sd_bus_message* message);
    int onExecute(sd_bus_message* message);
    int onRelease(sd_bus_message* message);
    int onNameLost(sd_bus_message* signal);

    // For calls.
    sd_bus* bus() const { return bus_.get(); }
    sd_event* loop() const { return loop_.get(); }
    long questionsOf(uid_t user) const;
    /// Ends and destroys the call of that connection, if there is one.
    void end(const std::string& name, const char* error, const std::string& reason);

  private:
    int onIdle();
    void startIdleTime();

    std::chrono::microseconds idleTime_;
    std::unique_ptr<sd_event, Unref<sd_event_unref>> loop_;
    BusConnection bus_;
    EventSource idleTimer_;
    std::map<std::string, Call, std::less<>> calls_; // by the connection's unique name
};

} // namespace rights
