#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace package {

/// Every failure of an install. what() is the cause in one short English line, fit to be shown; it may quote
/// names from the package, made printable.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The Failure for the system call that has just set errno.
inline Failure systemFailure(const std::string& what) {
    return Failure(what + ": " + std::generic_category().message(errno));
}

} // namespace package
