#pragma once

#include <string>

/// Usage statistics, handed to the tool `WebStatistics` beside the executable. Each call starts the tool once
/// and does not wait; a tool that is missing or can't be executed changes nothing. Calls may overlap, and the
/// order in which the tool sees them is not guaranteed. Any thread.

/// Records the event `code`, a short decimal text: starts the tool with "14" and the code.
void executeWebStatic(const char* code);

/// Has the tool submit what it has gathered: starts it with "13".
void submitWebStatic();

/// The tool's path for an executable at `executablePath`: its file name and the ".." after it cancel out by
/// name, not by what the file system holds.
std::string webStatisticsPath(const std::string& executablePath);
