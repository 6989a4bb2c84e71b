#pragma once

#include <string>

namespace installer {

class Staging;

struct Request {
    std::string package;                                     // path of a flat package
    std::string target;                                      // path of the folder to install into
    std::string trusted = "/etc/pellomar-installer/trusted"; // folder of certificates
};

// Does all that an install takes, up to the mark in the staging folder that makes it count. Prints progress.
// Throws Failure; what was done until then is undone by closing the staging folder.
void install(const Request& request, const Staging& staging);

} // namespace installer
