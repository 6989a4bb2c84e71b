#pragma once

#include <archive.h>

#include <memory>

namespace package {

struct FreeReader {
    void operator()(archive* handle) const { archive_read_free(handle); }
};
struct FreeWriter {
    void operator()(archive* handle) const { archive_write_free(handle); }
};

/// Owners of libarchive handles.
using ArchiveReader = std::unique_ptr<archive, FreeReader>;
using ArchiveWriter = std::unique_ptr<archive, FreeWriter>;

} // namespace package
