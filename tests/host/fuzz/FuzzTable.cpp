// A table's text, and a header's bytes.
#include "Fuzz.h"
#include "installer/Failure.h"
#include "installer/Table.h"

#include <set>

using namespace installer;

void fuzz(std::string_view input) {
    try {
        parseHeader(input);
    } catch (const Failure&) {
    }
    try {
        const Table table = parseTable(input);
        std::set<std::string> paths;
        for (const Entry& entry : table.entries) {
            const bool isFresh = entry.path.empty() || paths.insert(entry.path).second;
            if (!isFresh || entry.path.starts_with('/') ||
                ("/" + entry.path + "/").find("/../") != std::string::npos) {
                __builtin_trap();
            }
        }
        accountsForAll(table, input.size());
    } catch (const Failure&) {
    }
}
