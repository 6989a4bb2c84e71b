#include "rights/RootAuthorization_linux.h"

#include "base/ReadWrite.h"
#include "platform/Log.h"
#include "rights/RootTools.h"

#include <cerrno>

namespace {

class RootAuthorization : public AuthorizationOpaque {
  public:
    OSStatus copyRights(const std::string& /*right*/, unsigned /*flags*/) override {
        readAll(endEarlierAttempts().get());
        return errAuthorizationSuccess;
    }

    OSStatus execute(const std::string& toolPath, const std::vector<std::string>& arguments,
                     FileDescriptor& output) override {
        std::vector<std::string> line{toolPath};
        line.insert(line.end(), arguments.begin(), arguments.end());
        std::string refusal;
        const auto command = commands_.take(line, refusal);
        if (!command) {
            NSLog("not run as root: %s", refusal.c_str());
            return errAuthorizationDenied;
        }
        if (*command == PrivilegedCommand::RemoveApplication) {
            const FileDescriptor answer = commands_.setAside();
            const char* const cause = answer.isOpen() ? "see the line above" : systemErrorText(errno);
            if (!GrantedCommands::isSetAside(answer.get())) {
                NSLog("/bin/rm is not run, the application cannot be set aside: %s", cause);
                output = GrantedCommands::outputOfNoRemoval();
                return output.isOpen() ? errAuthorizationSuccess : errAuthorizationToolExecuteFailure;
            }
        }
        const bool isStarted = commands_.start(*command, line, std::nullopt, output) > 0;
        return isStarted ? errAuthorizationSuccess : errAuthorizationToolExecuteFailure;
    }

  private:
    GrantedCommands commands_;
};

} // namespace

std::unique_ptr<AuthorizationOpaque> makeRootAuthorization() {
    return std::make_unique<RootAuthorization>();
}
