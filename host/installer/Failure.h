#pragma once

#include <stdexcept>

namespace installer {

// The one way in which an install ends badly. what() is the cause in one short English line, ready to be
// shown; it may quote names from the package, made printable.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace installer
