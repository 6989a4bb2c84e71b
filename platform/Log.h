#pragma once

/// The program's one log call, printf-like. Each call writes one line to standard error, headed by time
/// stamp, process name, process id and thread id, in a single write, so that lines from several threads
/// (and from child processes that share the stream) never mix. Callable from any thread; never fails.
void NSLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
