#pragma once

#include <ctime>
#include <string>

/// Sends the program's diagnostic output to a log file of its own. Main thread.
class AppDelegate {
  public:
    void applicationDidFinishLaunching();
    void applicationWillTerminate();

    /// From here on the log and all of standard output go to a fresh file in the user's Documents. Where its
    /// path has characters outside ASCII, or it can't be opened, the streams stay as they are.
    static void redirectNSlogToDocumentFolder();
};

/// Full path of the log of a start at `time` (local time zone): one file for each second.
std::string logFilePath(const std::string& documents, std::time_t time);
