#pragma once

#include <string_view>

namespace installer {

// Prints to standard output, unbuffered, so that nothing is lost however the process ends. Whoever runs this
// program judges it by the words printed: only a line "installer: Error - <cause>" may spell "error" or
// "invalid", so no other line quotes a name.
void print(std::string_view text);

// Prints that one line.
void printFailure(std::string_view cause);

} // namespace installer
