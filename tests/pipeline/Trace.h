#pragma once

#include <string>

/// Where a run of the pipeline leaves what happened, line by line: the driver and the tools that it starts
/// append to the same file, each line in one write, so that the lines stand in the order of what they tell.
namespace trace {

inline constexpr char kFolder[] = "/tmp/pipeline";

/// What happens in the driver and in the tools that it waits for.
inline constexpr char kFile[] = "/tmp/pipeline/trace";

/// What the programs tell that nobody waits for.
inline constexpr char kOpenedFile[] = "/tmp/pipeline/opened";

/// From here on the driver's lines are kept; those of the first download are not. Any thread.
void start();

/// Appends `line` to the trace; its line breaks become the two characters \n. Any thread.
void add(std::string line);

} // namespace trace
