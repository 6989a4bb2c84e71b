#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace package {

// The one way in which an install ends badly. what() is the cause in one short English line, ready to be
// shown; it may quote names from the package, made printable.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The Failure that a system call has just told of in errno.
inline Failure systemFailure(const std::string& what) {
    return Failure(what + ": " + std::generic_category().message(errno));
}

} // namespace package
