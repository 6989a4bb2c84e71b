#pragma once

#include <optional>
#include <string>

/// Fetches `url` (http or https) with GET, following redirects. Blocks until the reply is complete: at most
/// 30 seconds for connecting and then, to within a second, `timeout` seconds for the reply. The HTTP status
/// is ignored: an error page's body is returned like any other. Nothing is returned when the URL is
/// malformed, the server cannot be reached, or the reply is incomplete. Any thread.
std::optional<std::string> synchronousGet(const std::string& url, long timeout);
