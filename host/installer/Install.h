#pragma once

#include <string>

namespace installer {

class PackageFile;
class Staging;

struct Request {
    std::string target;               ///< path of the folder to install into
    bool isSignatureDemanded = false; ///< even if no certificate is trusted
    std::string trusted; ///< folder of trusted certificates; empty: the usual ones, package::kTrustedFolders
};

/// Installs the package and commits it with the mark in the staging folder. Prints progress. Throws
/// package::Failure; closing the staging folder undoes what was done until then. SIGALRM ends the process if
/// the file system that the package is on does not answer for a minute. Takes at most 64 MB of
/// memory, 32 MB if the package is refused before it is unpacked.
void install(const Request& request, PackageFile& file, Staging& staging);

} // namespace installer
