#include "host/package/Xml.h"

#include "base/Owner.h"
#include "host/package/Failure.h"
#include "host/package/Text.h"

#include <expat.h>

#include <new>
#include <type_traits>

namespace package {

namespace {

constexpr std::size_t kMostItems = 20'000; // elements and attributes
constexpr std::size_t kDeepest = 64;

struct Reading {
    XML_Parser parser = nullptr;
    Element root;
    std::vector<Element*> open; // the elements whose end has not come yet
    std::string_view skipped;
    std::size_t skippedDepth = 0; // how many elements are open in a skipped one, itself included
    std::size_t items = 0;
    const char* problem = nullptr;

    void stop(const char* cause) {
        problem = cause;
        XML_StopParser(parser, XML_FALSE);
    }
};

// Exceptions must not pass through the C library that calls these.
template <typename Step>
void guarded(void* data, Step step) {
    auto& reading = *static_cast<Reading*>(data);
    if (reading.problem) {
        return;
    }
    try {
        step(reading);
    } catch (const std::bad_alloc&) {
        reading.stop("takes too much memory");
    }
}

void onStart(void* data, const XML_Char* name, const XML_Char** attributes) {
    guarded(data, [&](Reading& reading) {
        if (reading.open.size() + reading.skippedDepth >= kDeepest) { // the parser itself keeps all open ones
            reading.stop("is nested too deeply");
            return;
        }
        if (reading.skippedDepth > 0 || (!reading.skipped.empty() && name == reading.skipped)) {
            ++reading.skippedDepth;
            return;
        }
        ++reading.items;
        for (const XML_Char** attribute = attributes; *attribute; attribute += 2) {
            ++reading.items;
        }
        if (reading.items > kMostItems) {
            reading.stop("is too large");
            return;
        }
        Element* element = &reading.root;
        if (!reading.open.empty()) {
            // The parent's other children are all closed, so their places may move.
            element = &reading.open.back()->children.emplace_back();
        }
        element->name = name;
        for (; *attributes; attributes += 2) {
            element->attributes[attributes[0]] = attributes[1];
        }
        reading.open.push_back(element);
    });
}

void onEnd(void* data, const XML_Char*) {
    guarded(data, [](Reading& reading) {
        if (reading.skippedDepth > 0) {
            --reading.skippedDepth;
        } else {
            reading.open.pop_back();
        }
    });
}

void onText(void* data, const XML_Char* text, int size) {
    guarded(data, [&](Reading& reading) {
        if (reading.skippedDepth == 0) {
            reading.open.back()->text.append(text, static_cast<std::size_t>(size));
        }
    });
}

void onDoctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    static_cast<Reading*>(data)->stop("declares a document type");
}

} // namespace

std::string Element::attribute(const std::string& key) const {
    const auto found = attributes.find(key);
    return found == attributes.end() ? std::string() : found->second;
}

const Element* Element::child(std::string_view key) const {
    const Element* found = nullptr;
    for (const Element& candidate : children) {
        if (candidate.name != key) {
            continue;
        }
        if (found != nullptr) {
            throw Failure("the package has a duplicate XML element: " + inQuotes(key));
        }
        found = &candidate;
    }
    return found;
}

Element parseXml(std::string_view xml, const std::string& what, std::string_view skipped) {
    const Owner<std::remove_pointer_t<XML_Parser>, XML_ParserFree> parser(XML_ParserCreate(nullptr));
    if (!parser) {
        throw std::bad_alloc();
    }
    Reading reading;
    reading.parser = parser.get();
    reading.skipped = skipped;
    XML_SetUserData(parser.get(), &reading);
    XML_SetElementHandler(parser.get(), onStart, onEnd);
    XML_SetCharacterDataHandler(parser.get(), onText);
    XML_SetStartDoctypeDeclHandler(parser.get(), onDoctype);
    const XML_Status status = XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE);
    if (reading.problem != nullptr) {
        throw Failure(what + " " + reading.problem);
    }
    if (status != XML_STATUS_OK) {
        throw Failure(what + " is not well-formed XML: " + XML_ErrorString(XML_GetErrorCode(parser.get())));
    }
    return std::move(reading.root);
}

} // namespace package
