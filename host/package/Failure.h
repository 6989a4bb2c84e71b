#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace package {

/// What kind of failure it is, for whoever handles one. The numbers are the installer's exit statuses; see
/// installer(8).
enum class FailureKind {
    System = 1,    ///< a call of the system failed; or stopped, or out of memory
    Usage = 2,     ///< of the command line
    Package = 3,   ///< damaged, or of a form that is not installed
    Signature = 4, ///< missing, wrong, or of a signer that is not trusted
    Conflict = 5,  ///< with what is installed: a higher version, or another product in the same place
    Target = 6,    ///< not fit to be installed into
    Space = 7,     ///< too little is free on the target
    Busy = 8,      ///< another install is under way
    Script = 9,    ///< a script of the package failed
};

/// Every failure of an install. what() is the cause in one short English line, fit to be shown; it may quote
/// names from the package, made printable.
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string& cause, FailureKind kind = FailureKind::Package)
        : std::runtime_error(cause), kind_(kind) {}

    FailureKind kind() const { return kind_; }

  private:
    FailureKind kind_;
};

/// The Failure for the system call that has just set errno.
inline Failure systemFailure(const std::string& what) {
    const bool isFull = errno == ENOSPC || errno == EDQUOT;
    return Failure(what + ": " + std::generic_category().message(errno),
                   isFull ? FailureKind::Space : FailureKind::System);
}

} // namespace package
