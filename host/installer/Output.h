#pragma once

#include <string_view>

namespace installer {

/// Prints to standard output, unbuffered, so that nothing is lost however the process ends. The caller judges
/// the outcome by the words printed: only a line "installer: Error - <cause>" may contain "error" or
/// "invalid", so no other line quotes a name. When the reader of a pipe stops reading, the text is dropped
/// after ten seconds, as is all that follows, so that the target does not stay locked; the outcome is
/// printed without the lock.
void print(std::string_view text);

/// Prints without a time limit.
void printOutcome(std::string_view text);

/// Prints the line "installer: Error - <cause>", without a time limit. Control characters are replaced.
void printFailure(std::string_view cause);

} // namespace installer
