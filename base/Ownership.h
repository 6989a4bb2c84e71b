#pragma once

#include <sys/stat.h>
#include <unistd.h>

/// Whether the file belongs to root or to the user who runs this program, and no one else can write to it. An
/// owner can change the mode, whatever it is now. Not for symbolic links, whose mode has no meaning.
inline bool isOursAlone(const struct stat& file) {
    return (file.st_uid == 0 || file.st_uid == geteuid()) && (file.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}
