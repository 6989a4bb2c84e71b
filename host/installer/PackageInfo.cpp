#include "installer/PackageInfo.h"

#include "installer/Failure.h"
#include "installer/Text.h"

#include <expat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <type_traits>

namespace installer {

namespace {

struct Root {
    XML_Parser parser = nullptr;
    std::string name;
    std::map<std::string, std::string> attributes;
    bool hasDoctype = false;
};

void onElement(void* data, const XML_Char* name, const XML_Char** attributes) {
    auto& root = *static_cast<Root*>(data);
    if (!root.name.empty())
        return;
    root.name = name;
    for (; *attributes; attributes += 2)
        root.attributes[attributes[0]] = attributes[1];
}

void onDoctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    auto& root = *static_cast<Root*>(data);
    root.hasDoctype = true;
    XML_StopParser(root.parser, XML_FALSE);
}

struct FreeParser {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

bool isPlainWord(const std::string& text) {
    return !text.empty() && text.size() <= 255 && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return c > ' ' && c < 0x7f && c != '/';
    });
}

} // namespace

PackageInfo parsePackageInfo(std::string_view xml) {
    const std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser> parser(XML_ParserCreate(nullptr));
    if (!parser)
        throw Failure("out of memory");
    Root root;
    root.parser = parser.get();
    XML_SetUserData(parser.get(), &root);
    XML_SetStartElementHandler(parser.get(), onElement);
    // Entities have no place here, and could blow up or reach for other files.
    XML_SetStartDoctypeDeclHandler(parser.get(), onDoctype);
    const XML_Status status = XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE);
    if (root.hasDoctype)
        throw Failure("PackageInfo declares a document type");
    if (status != XML_STATUS_OK)
        throw Failure(std::string("PackageInfo is not well-formed XML: ") +
                      XML_ErrorString(XML_GetErrorCode(parser.get())));
    if (root.name != "pkg-info")
        throw Failure("PackageInfo describes no package: its root is " + quoted(root.name));

    const auto attribute = [&root](const char* name) {
        const auto found = root.attributes.find(name);
        return found == root.attributes.end() ? std::string() : found->second;
    };
    if (const std::string format = attribute("format-version"); !format.empty() && format != "2")
        throw Failure("PackageInfo has the unknown format version " + quoted(format));
    PackageInfo info{attribute("identifier"), attribute("version"), {}};
    if (!isPlainWord(info.identifier))
        throw Failure("PackageInfo has no usable identifier");
    if (!isPlainWord(info.version))
        throw Failure("PackageInfo has no usable version");
    std::string location = attribute("install-location");
    location.erase(0, location.find_first_not_of('/'));
    if (!location.empty())
        info.location = relativePath(location);
    return info;
}

} // namespace installer
