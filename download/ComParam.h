#pragma once

#include <cstdint>
#include <string>

/// The parameters of one download worker, which has its own copy.
struct ComParam {
    std::int64_t istartpos = 0; ///< byte offset to resume from
    std::string filepath;       ///< full path of the temporary file
    std::string fileurl;        ///< the package's address
};
