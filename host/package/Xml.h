#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace package {

/// One element of an XML document with everything below it.
struct Element {
    std::string name;
    std::map<std::string, std::string> attributes;
    std::string text; ///< between its tags, without its children's
    std::vector<Element> children;

    /// The attribute's value; empty if there is none.
    std::string attribute(const std::string& key) const;

    /// The only child of that name, or null. Throws Failure when there are several: two programs might then
    /// disagree about which one counts.
    const Element* child(std::string_view key) const;
};

/// Reads a document, which `what` names in messages. Elements named `skipped` are left out, with everything
/// below them, and take no memory. Throws Failure when the document is not well-formed, declares a document
/// type (its entities could expand without bounds or refer to files), or exceeds fixed limits on depth and on
/// the number of elements and attributes.
Element parseXml(std::string_view xml, const std::string& what, std::string_view skipped = {});

} // namespace package
