#pragma once

#include <optional>
#include <string>

/// Fetches `url` (http or https) with GET, following redirects. Blocks until the reply is complete, but at
/// most `timeout` seconds for connecting and as long again, to within a second, from there on. The HTTP
/// status is ignored: an error page's body is returned like any other. Nothing is returned when the URL is
/// malformed, the server cannot be reached, or the reply is incomplete. Any thread.
std::optional<std::string> synchronousGet(const std::string& url, long timeout);
