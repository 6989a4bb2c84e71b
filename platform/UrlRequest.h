#pragma once

#include <optional>
#include <string>

inline constexpr long kConnectTimeout = 30; ///< seconds, for every connection of the program

/// Fetches `url` (http or https) with GET, following redirects. Blocks until the reply is complete: at most
/// kConnectTimeout for connecting and then, to within a second, `timeout` seconds for the reply. The HTTP
/// status is ignored: an error page's body is returned like any other. Nothing is returned if the URL is
/// malformed, the server cannot be reached, or the reply is incomplete. Any thread.
std::optional<std::string> synchronousGet(const std::string& url, long timeout);
