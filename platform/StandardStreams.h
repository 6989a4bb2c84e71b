#pragma once

#include <string>

/// Makes writing to a pipe without a reader fail with EPIPE instead of ending the program.
/// Child processes start with the default again. Before any output.
void ignoreBrokenPipes();

/// Sends standard output and standard error to the file at `path`, each by an appending opening of its own
/// (the file is made when missing, for its owner's eyes only). Where the file cannot be opened, or `path` is
/// empty, both streams keep their destination. Standard output then writes line by line, so that its lines
/// and the log's stand in the order written, and a write to it no longer fails: what a full disk does not
/// take is lost. Main thread, before other threads write.
void redirectStandardStreams(const std::string& path);

/// Writes out what standard output and standard error still hold, and only those two: flushing every
/// stream would wait for a stream that another thread is reading. Any thread.
void flushStandardStreams();
