#pragma once

#include "base/BusObjects.h"
#include "base/RootTools.h"
#include "rights/Watch.h"

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace rights {

class Service;

/// One connection that has asked for rights. Its grant ends when it is removed.
struct Caller {
    Service* service = nullptr;
    uid_t user = static_cast<uid_t>(-1); // until the bus has named it
    bool isAuthorized = false;
    BusSlot question;                // to the bus, then to polkit
    BusMessage waiting;              // its Authorize call, until it is answered
    std::unique_ptr<Watch> leftOver; // waits until earlier attempts are over
    GrantedCommands commands;

    // The Execute call under way, until its tool has been started, and then until the tool has ended.
    BusMessage request;
    std::vector<std::string> line;
    std::optional<PrivilegedCommand> command; // of `line`, once it is known and allowed
    unsigned transaction = 0;                 // its number, once it is begun
    bool isSetAside = false;                  // the application is set aside, or that has failed
    pid_t tool = 0;
};

/// Runs the commands of an installation as root for callers that polkit authorizes. The bus identifies the
/// caller; a grant belongs to one connection. One thread and one event loop, which never blocks on a user, a
/// tool or a user's file system.
class Service {
  public:
    explicit Service(std::chrono::seconds idleTime) : idleTime_(idleTime) {}

    /// Handles calls until the service has been idle for `idleTime`. Returns 0, or a negative errno value.
    int run();

    // Handlers of the three calls and of the signal that a connection has ended; run() calls them.
    int onAuthorize(sd_bus_message* call);
    int onExecute(sd_bus_message* call);
    int onRelease(sd_bus_message* call);
    int onNameLost(sd_bus_message* signal);

  private:
    using Callers = std::map<std::string, Caller, std::less<>>; // by the connection's unique name

    static int onUser(sd_bus_message* answer, void* data, sd_bus_error* error);
    static int onPolkitAnswer(sd_bus_message* answer, void* data, sd_bus_error* error);
    int onIdle();
    bool isIdle() const { return callers_.empty() && tools_.empty() && transactions_.empty(); }
    void startIdleTime();
    void answerAuthorized(const std::string& name);
    void endGrant(const std::string& name, const char* error, const std::string& reason);

    void beginTransaction(const std::string& name, Caller& caller);
    void proceed(const std::string& name);
    void onTransaction(const std::string& name, unsigned number, int state);
    void startTool(const std::string& name, Caller& caller, PrivilegedCommand command);
    void onToolExit(const std::string& name, pid_t process);
    int refuse(sd_bus_message* call, const char* error, const std::string& reason);

    std::chrono::microseconds idleTime_;
    std::unique_ptr<sd_event, Unref<sd_event_unref>> loop_;
    BusConnection bus_;
    EventSource idleTimer_;
    Callers callers_;
    std::map<pid_t, std::unique_ptr<Watch>> tools_;
    // By number: a connection that is authorized again may begin one before its last one is over.
    std::map<unsigned, std::unique_ptr<Watch>> transactions_;
    unsigned lastTransaction_ = 0;
};

} // namespace rights
