#pragma once

#include <cstdint>
#include <string>

/// What one download worker is started with; the worker has its own copy.
struct ComParam {
    std::int64_t istartpos = 0; ///< byte offset to resume from
    std::string filepath;       ///< full path of the temporary file
    std::string fileurl;        ///< the package's address
};
