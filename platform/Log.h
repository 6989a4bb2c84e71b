#pragma once

/// Logs one line, printf-like, to standard error: time stamp, process name, process id, thread id and the
/// message, in a single write, so that lines from several threads and child processes never interleave. Any
/// thread; errors are ignored and errno is kept.
void NSLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
