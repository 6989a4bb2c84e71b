#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The stamp file ".propaganda.dat": fields separated by "|", three of which hold the distributed version.

/// The address from which the current version text is requested.
std::string updateInformationUrl();

/// The new fields, each followed by "|", for a stamp with this `content`: fields that contain one of the
/// three keys are replaced, others are kept. A missing `version` is written as "(null)". No fields when
/// `content` is not UTF-8.
std::vector<std::string> rewrittenStampFields(std::string_view content,
                                              const std::optional<std::string>& version);

/// Rewrites the stamp file at `path` in place, from its start and without truncating it. A missing file is
/// not created; a file that can't be opened is logged and left unchanged. Any thread.
void rewriteStampFile(const std::string& path, const std::optional<std::string>& version);
