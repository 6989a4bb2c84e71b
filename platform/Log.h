#pragma once

/// Logs one line, printf-like, to standard error: time stamp, process name, process id, thread id and the
/// message, in a single write, so that lines from several threads and child processes never interleave. Any
/// thread; errors are ignored and errno is kept.
void NSLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The system's text for an `errno` value, in English whatever the user's language:
/// std::error_code::message() follows the locale, which the toolkit sets. Any thread.
const char* systemErrorText(int number);
