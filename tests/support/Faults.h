#pragma once

#include "support/FaultServer.h"

#include <string>
#include <vector>

struct Fault {
    std::string name;
    Answer answer;
};

/// The size of the document that the faults are made for.
inline constexpr std::size_t kFaultyDocumentSize = 100'000;

/// Where the faults "in mid-body" strike, counted from the start of the body that is sent.
inline constexpr std::size_t kMidBody = 40'000;

/// All that a server can do wrong to one request. What must follow is for each suite to say, by name.
const std::vector<Fault>& faults();
