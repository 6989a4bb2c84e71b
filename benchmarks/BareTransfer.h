#pragma once

/// A lower bound for a download: the length probe and a transfer with the product's options, each block
/// written and flushed before the next, and nothing else. Any thread, after curl_global_init(). Returns
/// whether it succeeded.
bool transferBare(const char* url, const char* path);
