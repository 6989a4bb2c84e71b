#pragma once

#include <string>

/// Where the running program and its resources are. Paths are bytes as the system gives them, without a
/// trailing slash. Any thread; computed once.

/// Full path of the running executable.
const std::string& executablePath();

/// The folder `Name.app` when the executable is `Name.app/Contents/MacOS/<file>`; for a program outside a
/// bundle, the folder of the executable.
const std::string& bundlePath();

/// Full path of the resource `name`.`type`: in Contents/Resources, or beside a program outside a bundle.
/// The file need not exist.
std::string bundleResourcePath(const std::string& name, const std::string& type);
