#pragma once

#include <cstddef>
#include <string>

/// Puts the null device wherever one of the three standard streams was closed when the process started, so
/// that no file or descriptor of ours comes to be where the log writes. First thing in the process.
void occupyStandardStreams();

/// Sends standard output and standard error to the file at `path`, each by an appending opening of its own
/// (the file is made when missing, for its owner's eyes only). Where the file cannot be opened, or `path` is
/// empty, both streams keep their destination. Standard output then writes line by line, so that its lines
/// and the log's stand in the order written, and a write to it no longer fails: what a full disk does not
/// take is lost. Main thread, before other threads write.
void redirectStandardStreams(const std::string& path);

/// Writes to a standard stream's descriptor as much as it takes; there is nobody to tell of a failure.
/// `errno` may change. Any thread.
void writeWhatFits(int descriptor, const char* data, std::size_t size);

/// Writes out what standard output and standard error still hold, and only those two: flushing every
/// stream would wait for a stream that another thread is reading. Any thread.
void flushStandardStreams();
