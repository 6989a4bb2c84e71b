#pragma once

#include <ctime>
#include <string>

/// Redirects the program's diagnostic output to a new log file. Main thread.
class AppDelegate {
  public:
    void applicationDidFinishLaunching();
    void applicationWillTerminate();

    /// Redirects standard output and standard error (the log) to a new file in the user's Documents. If its
    /// path has non-ASCII characters, or it cannot be opened, both streams keep their destination.
    static void redirectNSlogToDocumentFolder();
};

/// The path of the log of a start at `time`. It holds the local time to the second.
std::string logFilePath(const std::string& documents, std::time_t time);
