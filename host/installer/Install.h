#pragma once

#include <string>

namespace installer {

class PackageFile;
class Staging;

struct Request {
    std::string target;               ///< path of the folder to install into
    bool isSignatureDemanded = false; ///< even where no certificate is trusted
    std::string trusted; ///< folder of trusted certificates; empty: the usual ones, package::kTrustedFolders
};

/// Installs the package and commits it with the mark in the staging folder. Prints progress. Throws
/// package::Failure; what was done until then is undone by closing the staging folder. Ends the process by
/// SIGALRM when the file system that the package is on does not answer for a minute. Takes at most 64 MB of
/// memory, 32 MB if the package is refused before it is unpacked.
void install(const Request& request, PackageFile& file, const Staging& staging);

} // namespace installer
