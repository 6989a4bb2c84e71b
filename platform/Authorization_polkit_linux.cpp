#include "platform/Authorization_polkit_linux.h"

#include "base/FileDescriptor.h"
#include "base/Pipe.h"
#include "base/RightsProtocol.h"
#include "platform/MainThread.h"

#include <QEventLoop>
#include <QSocketNotifier>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

namespace {

constexpr std::uint64_t kNoTimeOut = UINT64_MAX; // a person may be typing a password

template <auto unref>
struct Unref {
    template <typename Object>
    void operator()(Object* object) const {
        unref(object);
    }
};
using Bus = std::unique_ptr<sd_bus, Unref<sd_bus_flush_close_unref>>;
using Message = std::unique_ptr<sd_bus_message, Unref<sd_bus_message_unref>>;

class PolkitAuthorization : public AuthorizationOpaque {
  public:
    explicit PolkitAuthorization(Bus bus) : bus_(std::move(bus)) {}
    PolkitAuthorization(const PolkitAuthorization&) = delete;
    PolkitAuthorization& operator=(const PolkitAuthorization&) = delete;

    ~PolkitAuthorization() override {
        // Where nobody is there to hear it, nobody is started for it.
        if (const Message message = newCall("Release"); message != nullptr) {
            sd_bus_message_set_auto_start(message.get(), 0);
            sd_bus_send(bus_.get(), message.get(), nullptr);
        }
    }

    bool reachesServices() { return reaches(rights::kBusName) && reaches("org.freedesktop.PolicyKit1"); }

    OSStatus copyRights(const std::string& right, unsigned flags) override {
        const Message message = newCall("Authorize");
        if (right != rights::kBusName || message == nullptr) {
            return errAuthorizationDenied;
        }
        const bool mayAsk = (flags & kAuthorizationFlagInteractionAllowed) != 0;
        sd_bus_message_set_allow_interactive_authorization(message.get(), mayAsk ? 1 : 0);
        return call(message);
    }

    OSStatus execute(const std::string& toolPath, const std::vector<std::string>& arguments,
                     FILE** pipe) override {
        Pipe output;
        Message message = newCall("Execute");
        int result = message == nullptr ? -1 : sd_bus_message_append(message.get(), "s", toolPath.c_str());
        if (result >= 0) {
            result = sd_bus_message_open_container(message.get(), 'a', "s");
        }
        for (const std::string& argument : arguments) {
            result = result < 0 ? result : sd_bus_message_append(message.get(), "s", argument.c_str());
        }
        if (result < 0 || sd_bus_message_close_container(message.get()) < 0 ||
            sd_bus_message_append(message.get(), "h", output.writeEnd.get()) < 0) {
            return errAuthorizationToolExecuteFailure;
        }
        const OSStatus status = call(message);
        // The tool's end of file is seen once its own end is the only one; the message holds another.
        message.reset();
        output.writeEnd.reset();
        if (status != errAuthorizationSuccess) {
            return status;
        }
        *pipe = output.takeReadStream();
        return *pipe == nullptr ? errAuthorizationToolExecuteFailure : errAuthorizationSuccess;
    }

  private:
    // Starts a service that does not run yet, so that one installed wrongly counts as missing.
    bool reaches(const char* service) {
        const auto askBus = [&](const char* member, const char* types, auto... arguments) {
            int result = -1;
            waitAside([&] {
                result =
                    sd_bus_call_method(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", member, nullptr, nullptr, types, arguments...);
            });
            return result >= 0;
        };
        return askBus("GetNameOwner", "s", service) || askBus("StartServiceByName", "su", service, 0);
    }

    Message newCall(const char* member) {
        sd_bus_message* message = nullptr;
        sd_bus_message_new_method_call(bus_.get(), &message, rights::kBusName, rights::kObjectPath,
                                       rights::kBusName, member);
        return Message(message);
    }

    OSStatus call(const Message& message) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        int result = -1;
        waitAside([&] { result = sd_bus_call(bus_.get(), message.get(), kNoTimeOut, &error, nullptr); });
        const std::string_view name = error.name == nullptr ? "" : error.name;
        OSStatus status = errAuthorizationDenied;
        if (result >= 0) {
            status = errAuthorizationSuccess;
        } else if (name == rights::kErrorCanceled) {
            status = errAuthorizationCanceled;
        } else if (name == rights::kErrorNotStarted) {
            status = errAuthorizationToolExecuteFailure;
        }
        sd_bus_error_free(&error);
        return status;
    }

    // The main thread goes on serving its events until `exchange`, on a thread of its own, is through. A
    // program that is being quit waits no longer: the connection is cut, which ends the exchange.
    void waitAside(const std::function<void()>& exchange) {
        const FileDescriptor through(MainThread::isCurrent() ? eventfd(0, EFD_CLOEXEC) : -1);
        if (!through.isOpen()) {
            exchange();
            return;
        }
        const int connection = sd_bus_get_fd(bus_.get());
        QEventLoop loop;
        QSocketNotifier notifier(through.get(), QSocketNotifier::Read);
        bool isThrough = false;
        QObject::connect(&notifier, &QSocketNotifier::activated, [&] {
            isThrough = true;
            loop.quit();
        });
        std::thread aside([&] {
            exchange();
            eventfd_write(through.get(), 1);
        });
        loop.exec();
        if (!isThrough) {
            shutdown(connection, SHUT_RDWR);
        }
        aside.join();
    }

    Bus bus_;
};

} // namespace

AuthorizationRef makePolkitAuthorization() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) {
        return nullptr;
    }
    auto authorization = std::make_unique<PolkitAuthorization>(Bus(bus));
    return authorization->reachesServices() ? authorization.release() : nullptr;
}
