#pragma once

#include "base/FileDescriptor.h"
#include "rights/BusObjects.h"
#include "rights/RootTools.h"

#include <systemd/sd-event.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace rights {

class Service;

/// What one connection asks of the service, from its Authorize until the connection ends.
///
///     caller                   state here         what this starts, and what comes back
///     Authorize -------------> Identifying        the bus is asked whose connection it is: a user's number
///                              Asking             polkit is asked, which asks the user: yes, no, dismissed
///                              AwaitingEarlier    transaction `end`: its output ends with the last attempt
///     <--------- empty reply - Ready
///     Execute rm ------------> SettingAside       transaction `hold`: one byte, set aside or not
///     <------- rm's output --- Running            rm: its exit. If not set aside: Ready, with one line
///     Execute installer -----> Running            installer: its exit, and in it the transaction's
///     <---- its output ------- Ready
///     Execute kextstat … ----> Running
///     (connection ends) -----> (removed)          the transaction ends with whoever still holds it
///
/// A tool keeps running when its call has ended. An Execute that arrives while a tool is Running waits for
/// its end. If the call ends in any other state, the message that is not answered yet is refused. Nothing
/// here blocks: an event ends each state.
class Call {
  public:
    Call(Service& service, std::string name) : service_(service), name_(std::move(name)) {}

    int authorize(sd_bus_message* message);
    int execute(sd_bus_message* message);

    /// Cancels what is asked and refuses what is not answered. The object is destroyed after this.
    void end(const char* error, const std::string& reason);

    bool isGranted() const { return state_ >= State::Ready; }
    bool isQuestionOf(uid_t user) const { return state_ == State::Asking && user_ == user; }

  private:
    enum class State { New, Identifying, Asking, AwaitingEarlier, Ready, SettingAside, Running };

    template <typename... Arguments>
    void ask(sd_bus_message_handler_t onAnswer, const char* destination, const char* path,
             const char* interface, const char* member, const char* types, Arguments... arguments);
    int onUser(sd_bus_message* answer);
    int onPolkitAnswer(sd_bus_message* answer);
    void await(State state, FileDescriptor descriptor);
    void onReadable();
    void proceed();
    void startTool();
    void onToolExit(const siginfo_t& end);
    void reply(State next, const FileDescriptor& output = FileDescriptor());
    int refuse(const char* error, const std::string& reason);

    Service& service_;
    const std::string name_; // of the connection
    State state_ = State::New;
    uid_t user_ = static_cast<uid_t>(-1); // until the bus has named it
    BusMessage message_;                  // the Authorize or Execute that is not answered yet

    BusSlot question_;       // Identifying, Asking
    FileDescriptor awaited_; // AwaitingEarlier, SettingAside
    // Comes when awaited_ has something to read, or when the tool has ended.
    Owner<sd_event_source, sd_event_source_disable_unref> event_;

    GrantedCommands commands_;
    std::vector<std::string> line_; // of the command that is being started or runs
    PrivilegedCommand command_{};
};

/// Runs the commands of an installation as root for callers that polkit authorizes. The bus identifies the
/// caller; each connection has one Call. One thread and one event loop, which never waits for a user, a tool
/// or a user's file system. SIGCHLD must be blocked.
class Service {
  public:
    explicit Service(std::chrono::seconds idleTime) : idleTime_(idleTime) {}

    /// Handles calls until the service has been idle for `idleTime`. Returns 0, or a negative errno value.
    int run();

    // Handlers of the two calls and of the signal that a connection has ended; run() registers them.
    int onAuthorize(sd_bus_message* message);
    int onExecute(sd_bus_message* message);
    int onNameLost(sd_bus_message* signal);

    // For calls.
    sd_bus* bus() const { return bus_.get(); }
    sd_event* loop() const { return loop_.get(); }
    long questionsOf(uid_t user) const;
    /// Ends and destroys the call of that connection, if there is one.
    void end(const std::string& name, const char* error, const std::string& reason);

  private:
    bool isOver();

    std::chrono::microseconds idleTime_;
    std::chrono::steady_clock::time_point lastUse_ = std::chrono::steady_clock::now();
    Owner<sd_event, sd_event_unref> loop_;
    BusConnection bus_;
    std::map<std::string, Call> calls_; // by the connection's unique name
};

/// A method of an object as a handler of messages.
template <typename Object, int (Object::*method)(sd_bus_message*)>
int handle(sd_bus_message* message, void* object, sd_bus_error* /*error*/) {
    return (static_cast<Object*>(object)->*method)(message);
}

/// Writes a line to standard error, which is the system's journal.
void log(const std::string& text);

} // namespace rights
