#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The stamp file ".propaganda.dat": fields separated by "|", three of which name the version distributed.

/// The address that tells the current version text.
std::string updateInformationUrl();

/// The new fields, each closed by "|", for a stamp that held `content`: fields with one of the three keys
/// anywhere in them are replaced whole, others stay. A missing `version` is written as the formatter renders
/// a missing object. No fields at all where `content` is not UTF-8.
std::vector<std::string> rewrittenStampFields(std::string_view content,
                                              const std::optional<std::string>& version);

/// Rewrites the stamp file at `path` in place, from its start and without shortening it. A missing file stays
/// missing; a file that can't be opened is logged and left as it was. Any thread.
void rewriteStampFile(const std::string& path, const std::optional<std::string>& version);
