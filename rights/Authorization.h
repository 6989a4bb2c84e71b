#pragma once

#include "base/FileDescriptor.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

/// Result of an authorization call; 0 is success. Values are the system's own.
using OSStatus = std::int32_t;

inline constexpr OSStatus errAuthorizationSuccess = 0;
inline constexpr OSStatus errAuthorizationDenied = -60005;             ///< refused, or no one could be asked
inline constexpr OSStatus errAuthorizationCanceled = -60006;           ///< the user closed the dialog
inline constexpr OSStatus errAuthorizationToolExecuteFailure = -60031; ///< the tool could not be started
inline constexpr OSStatus errAuthorizationBadAddress = -60033;         ///< no authorization could be made

inline constexpr unsigned kAuthorizationFlagDefaults = 0;
inline constexpr unsigned kAuthorizationFlagInteractionAllowed = 1;
inline constexpr unsigned kAuthorizationFlagExtendRights = 2;
inline constexpr unsigned kAuthorizationFlagDestroyRights = 8;
inline constexpr unsigned kAuthorizationFlagPreAuthorize = 16;

/// One authorization; each way of obtaining rights implements it. Used by one thread at a time.
struct AuthorizationOpaque {
    virtual ~AuthorizationOpaque() = default;
    virtual OSStatus copyRights(const std::string& right, unsigned flags) = 0;
    virtual OSStatus execute(const std::string& toolPath, const std::vector<std::string>& arguments,
                             FileDescriptor& output) = 0;
};
using AuthorizationRef = AuthorizationOpaque*;

/// Makes an authorization that has no rights yet, of the kind that suits this process and platform. Leaves
/// `authorization` null on failure. The caller frees it. Any thread.
OSStatus AuthorizationCreate(AuthorizationRef* authorization);

/// Asks for `right`; with kAuthorizationFlagInteractionAllowed the user may be asked, and the call takes as
/// long as that takes.
OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const std::string& right, unsigned flags);

/// Starts a tool as root, with a clean environment. On success `pipe` is a stream on the tool's standard
/// output, the caller's to read and close; otherwise it is null. Exit statuses are not reported. A tool that
/// is a child of this process is the caller's to reap.
OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const std::string& toolPath,
                                            unsigned options, const std::vector<std::string>& arguments,
                                            FILE** pipe);

/// Gives up the rights and frees the authorization. A null authorization is an error and changes nothing.
OSStatus AuthorizationFree(AuthorizationRef authorization, unsigned flags);

/// Owns an authorization and gives up its rights.
struct FreeAuthorization {
    void operator()(AuthorizationRef authorization) const {
        AuthorizationFree(authorization, kAuthorizationFlagDestroyRights);
    }
};
using AuthorizationOwner = std::unique_ptr<AuthorizationOpaque, FreeAuthorization>;
