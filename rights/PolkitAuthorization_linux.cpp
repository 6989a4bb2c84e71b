#include "rights/PolkitAuthorization_linux.h"

#include "base/FileDescriptor.h"
#include "platform/MainThread.h"
#include "rights/BusObjects.h"
#include "rights/Protocol.h"

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

constexpr std::uint64_t kNoTimeOut = UINT64_MAX; // the user may be typing a password

class PolkitAuthorization : public AuthorizationOpaque {
  public:
    bool connect() {
        sd_bus* bus = nullptr;
        const bool isConnected = sd_bus_open_system(&bus) >= 0;
        bus_.reset(bus);
        return isConnected && reaches(rights::kBusName) && reaches(rights::kPolkit);
    }

    OSStatus copyRights(const std::string& right, unsigned flags) override {
        const BusMessage message = newCall("Authorize");
        if (right != rights::kBusName || !message) {
            return errAuthorizationDenied;
        }
        const bool mayAsk = (flags & kAuthorizationFlagInteractionAllowed) != 0;
        sd_bus_message_set_allow_interactive_authorization(message.get(), mayAsk ? 1 : 0);
        return call(message);
    }

    OSStatus execute(const std::string& toolPath, const std::vector<std::string>& arguments,
                     FileDescriptor& output) override {
        BusMessage message = newCall("Execute");
        int result = !message ? -1 : sd_bus_message_append(message.get(), "s", toolPath.c_str());
        if (result >= 0) {
            result = sd_bus_message_open_container(message.get(), 'a', "s");
        }
        for (const std::string& argument : arguments) {
            result = result < 0 ? result : sd_bus_message_append(message.get(), "s", argument.c_str());
        }
        if (result < 0 || sd_bus_message_close_container(message.get()) < 0) {
            return errAuthorizationToolExecuteFailure;
        }
        BusMessage reply;
        const OSStatus status = call(message, &reply);
        int received = -1; // belongs to the reply
        if (status == errAuthorizationSuccess && sd_bus_message_read(reply.get(), "h", &received) > 0) {
            output = FileDescriptor(fcntl(received, F_DUPFD_CLOEXEC, 0));
        }
        return status;
    }

  private:
    // Starts the service if it does not run, so that one that cannot start counts as missing.
    bool reaches(const char* service) {
        const auto askBus = [&](const char* member, const char* types, auto... arguments) {
            int result = -1;
            waitAside([&] {
                result =
                    sd_bus_call_method(bus_.get(), rights::kBusDaemon, rights::kBusPath, rights::kBusDaemon,
                                       member, nullptr, nullptr, types, arguments...);
            });
            return result >= 0;
        };
        return askBus("GetNameOwner", "s", service) || askBus("StartServiceByName", "su", service, 0);
    }

    BusMessage newCall(const char* member) {
        sd_bus_message* message = nullptr;
        sd_bus_message_new_method_call(bus_.get(), &message, rights::kBusName, rights::kObjectPath,
                                       rights::kBusName, member);
        return BusMessage(message);
    }

    OSStatus call(const BusMessage& message, BusMessage* reply = nullptr) {
        sd_bus_error error{};
        sd_bus_message* received = nullptr;
        int result = -1;
        waitAside([&] { result = sd_bus_call(bus_.get(), message.get(), kNoTimeOut, &error, &received); });
        BusMessage answer(received);
        if (reply != nullptr) {
            *reply = std::move(answer);
        }
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

    // Runs `exchange` on another thread while the main thread handles events. If the program is quit
    // meanwhile, the connection is shut down, which ends the exchange.
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

    BusConnection bus_; // its end gives the rights up
};

} // namespace

std::unique_ptr<AuthorizationOpaque> makePolkitAuthorization() {
    auto authorization = std::make_unique<PolkitAuthorization>();
    return authorization->connect() ? std::move(authorization) : nullptr;
}
