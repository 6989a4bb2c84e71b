#pragma once

#include <cstddef>
#include <string>

/// `size` bytes that look random and are the same each time: any cut, shift or repetition shows.
std::string makeDocument(std::size_t size);

/// In hexadecimal digits.
std::string sha256(const std::string& bytes);
