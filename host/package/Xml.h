#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace package {

// One element of an XML document, read whole.
struct Element {
    std::string name;
    std::map<std::string, std::string> attributes;
    std::string text; // what stands between its tags, without its children's
    std::vector<Element> children;

    // The attribute's value; empty where there is none.
    std::string attribute(const std::string& key) const;

    // The only child of that name, or null. Throws Failure when there are several, since two readers might
    // then disagree about which one counts.
    const Element* child(std::string_view key) const;
};

// Reads a document, which `what` names in messages. Throws Failure when it is not well-formed, declares a
// document type (entities could blow up, or reach for other files), or is deeper or has more elements than
// any honest one.
Element parseXml(std::string_view xml, const std::string& what);

} // namespace package
