#pragma once

#include <string>

/// Makes writing to a pipe without a reader fail with EPIPE instead of ending the program. Child processes
/// start with the default again. Before any output.
void ignoreBrokenPipes();

/// Sends standard output and standard error to the file at `path`, each opened separately in append mode. A
/// missing file is created with mode 0600. If the file cannot be opened, both streams keep their destination.
/// Main thread, before other threads write.
void redirectStandardStreams(const std::string& path);

/// Makes standard output write line by line, so that its lines and the log's stand in the order written, and
/// makes writing to it succeed always: output that does not fit on a full disk is dropped. Main thread,
/// before other threads write.
void ignoreOutputErrors();
