#pragma once

#include <optional>
#include <string>

/// Fetches `url` (http or https) with GET, following redirects. Blocks until the reply is complete or
/// `timeout` seconds have passed. The HTTP status is ignored: an error page's body is returned like any
/// other. Nothing is returned when the URL is malformed, the server cannot be reached, or the reply is
/// incomplete. Any thread.
std::optional<std::string> synchronousGet(const std::string& url, long timeout);
