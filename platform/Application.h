#pragma once

/// Ends the process at once with `status`: standard output and standard error are flushed, no destructor
/// runs, no other thread is waited for. Any thread.
[[noreturn]] void exitProcess(int status);
