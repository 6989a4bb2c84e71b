#pragma once

#include "base/Owner.h"

#include <archive.h>

namespace package {

/// Owners of libarchive's handles.
using ArchiveReader = Owner<archive, archive_read_free>;
using ArchiveWriter = Owner<archive, archive_write_free>;

} // namespace package
