#include "rights/Authorization.h"
#include "rights/PolkitAuthorization_linux.h"
#include "rights/RootAuthorization_linux.h"

#include <unistd.h>

OSStatus AuthorizationCreate(AuthorizationRef* authorization) {
    *authorization = (geteuid() == 0 ? makeRootAuthorization() : makePolkitAuthorization()).release();
    return *authorization == nullptr ? errAuthorizationBadAddress : errAuthorizationSuccess;
}

OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const std::string& right, unsigned flags) {
    return authorization == nullptr ? errAuthorizationBadAddress : authorization->copyRights(right, flags);
}

OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const std::string& toolPath,
                                            unsigned /*options*/, const std::vector<std::string>& arguments,
                                            FILE** pipe) {
    *pipe = nullptr;
    if (authorization == nullptr) {
        return errAuthorizationBadAddress;
    }
    FileDescriptor output;
    const OSStatus status = authorization->execute(toolPath, arguments, output);
    if (status != errAuthorizationSuccess) {
        return status;
    }
    *pipe = fdopen(output.get(), "r");
    if (*pipe == nullptr) {
        return errAuthorizationToolExecuteFailure;
    }
    static_cast<void>(output.release()); // the stream has it
    return errAuthorizationSuccess;
}

OSStatus AuthorizationFree(AuthorizationRef authorization, unsigned /*flags*/) {
    if (authorization == nullptr) {
        return errAuthorizationBadAddress;
    }
    delete authorization;
    return errAuthorizationSuccess;
}
