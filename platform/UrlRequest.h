#pragma once

#include <optional>
#include <string>

/// Fetches `url` (http or https) with GET and blocks the calling thread until the reply is complete or
/// `timeout` seconds have passed. The HTTP status is not looked at: an error page's body is a body. Nothing
/// is returned where the URL is not one, the server could not be reached, or the reply did not come whole
/// in time. Redirects are followed. Any thread.
std::optional<std::string> synchronousGet(const std::string& url, long timeout);
