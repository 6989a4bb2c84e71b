#pragma once

/// Ends the process at once with `status`, after flushing standard output and standard error. No destructor
/// runs and other threads are not joined. Any thread.
[[noreturn]] void exitProcess(int status);
