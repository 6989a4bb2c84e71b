#pragma once

#include <ctime>
#include <string>

/// Redirects the program's diagnostic output to a new log file. Main thread.
class AppDelegate {
  public:
    void applicationDidFinishLaunching();
    void applicationWillTerminate();

    /// Redirects standard output and standard error (the log) to a new file in the user's Documents. When its
    /// path has non-ASCII characters, or it can't be opened, both streams stay as they are.
    static void redirectNSlogToDocumentFolder();
};

/// The path of the log for a start at `time` (local time), with a resolution of one second.
std::string logFilePath(const std::string& documents, std::time_t time);
