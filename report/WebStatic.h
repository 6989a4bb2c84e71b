#pragma once

#include <string>

/// Usage statistics. Each call starts the tool `WebStatistics`, beside the executable, without waiting for
/// it; a tool that is missing or can't be executed is ignored. Calls may overlap, and the tool may see them
/// in any order. Any thread.

/// Records the event `code`, a short decimal text: starts the tool with "14" and the code.
void executeWebStatic(const char* code);

/// Submits what the tool has gathered: starts it with "13".
void submitWebStatic();

/// The tool's path for an executable at `executablePath`. The ".." in it is resolved lexically.
std::string webStatisticsPath(const std::string& executablePath);
