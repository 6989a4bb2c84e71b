#pragma once

#include "installer/PackageInfo.h"

#include <string>

namespace installer {

class PayloadSink;

// A flat package: a xar archive with a PackageInfo and a Payload, opened once, so that every reading sees the
// same file even when its name comes to mean another. Not thread-safe.
class Package {
  public:
    // Throws Failure when `path` is not a regular file that can be opened.
    explicit Package(const std::string& path);
    Package(const Package&) = delete;
    Package& operator=(const Package&) = delete;
    ~Package();

    // Reads the archive from its first byte to its last entry's, so that every checksum is verified, and
    // hands the payload's entries to `sink`. May be called again. Throws Failure when the archive is damaged
    // or not a flat package, and lets the sink's Failure through.
    PackageInfo read(PayloadSink& sink) const;

  private:
    int file_;
};

} // namespace installer
