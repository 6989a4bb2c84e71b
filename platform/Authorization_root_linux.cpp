#include "platform/Authorization_root_linux.h"

#include "base/Pipe.h"
#include "base/ReadWrite.h"
#include "base/RootTools.h"
#include "platform/Log.h"

#include <unistd.h>

#include <cerrno>

namespace {

class RootAuthorization : public AuthorizationOpaque {
  public:
    OSStatus copyRights(const std::string& /*right*/, unsigned /*flags*/) override {
        std::error_code ignored;
        readAll(Transaction::endLeftOver(ignored).state.get());
        return errAuthorizationSuccess;
    }

    OSStatus execute(const std::string& toolPath, const std::vector<std::string>& arguments,
                     FILE** pipe) override {
        std::vector<std::string> line{toolPath};
        line.insert(line.end(), arguments.begin(), arguments.end());
        std::string refusal;
        const auto command = commands_.take(line, refusal);
        if (!command || !prepare(*command, line)) {
            NSLog("not run as root: %s", command ? "the package is not a regular file" : refusal.c_str());
            return errAuthorizationDenied;
        }
        Pipe output;
        std::error_code failure;
        if (!output.writeEnd.isOpen() ||
            commands_.start(*command, line, output.writeEnd.get(), failure) < 0) {
            return errAuthorizationToolExecuteFailure;
        }
        *pipe = output.takeReadStream();
        return *pipe == nullptr ? errAuthorizationToolExecuteFailure : errAuthorizationSuccess;
    }

  private:
    bool prepare(PrivilegedCommand command, const std::vector<std::string>& line) {
        if (command == PrivilegedCommand::InstallPackage) {
            commands_.package = openPackage(line[kPackageArgument]);
            // What is missing is for the installer to report.
            return commands_.package.isOpen() ? isPackageOf(commands_.package.get(), geteuid())
                                              : errno == ENOENT;
        }
        if (command == PrivilegedCommand::RemoveApplication) {
            std::error_code failure;
            Transaction transaction = Transaction::begin(failure);
            commands_.hold = std::move(transaction.hold);
            if (char byte = 0; read(transaction.state.get(), &byte, 1) != 1) {
                NSLog("the application is not set aside while it is replaced");
            }
        }
        return true;
    }

    GrantedCommands commands_;
};

} // namespace

std::unique_ptr<AuthorizationOpaque> makeRootAuthorization() {
    return std::make_unique<RootAuthorization>();
}
