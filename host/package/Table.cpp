#include "host/package/Table.h"

#include "host/package/Failure.h"
#include "host/package/Text.h"
#include "host/package/Xml.h"

#include <openssl/evp.h>

#include <algorithm>
#include <charconv>
#include <unordered_set>

namespace package {

namespace {

constexpr char kWhat[] = "the package's table";
constexpr std::size_t kMostCertificates = 10;
constexpr std::size_t kMostNameBytes = 1 << 20; // of all entries' paths

std::uint64_t fromBigEndian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (const char c : bytes) {
        value = value << 8 | static_cast<unsigned char>(c);
    }
    return value;
}

std::string_view trimmed(std::string_view text) {
    constexpr char kBlanks[] = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

[[noreturn]] void malformed(const char* what) {
    throw Failure(std::string("the package's table has a malformed ") + what);
}

std::uint64_t number(const Element& parent, const char* name) {
    const Element* element = parent.child(name);
    const std::string_view text = element != nullptr ? trimmed(element->text) : std::string_view();
    std::uint64_t value = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
    // The largest files that exist are far smaller, and sums of such numbers cannot overflow.
    if (text.empty() || problem != std::errc() || end != text.data() + text.size() || value >> 62 != 0) {
        malformed(name);
    }
    return value;
}

DigestKind digestStyle(const Element& element) {
    std::string style = element.attribute("style");
    std::transform(style.begin(), style.end(), style.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    const std::optional<DigestKind> kind = digestKind(style);
    if (!kind) {
        throw Failure("the package's table has a checksum of an unknown kind: " + inQuotes(style));
    }
    return *kind;
}

std::optional<Checksum> checksum(const Element& data, const char* name) {
    const Element* element = data.child(name);
    if (element == nullptr) {
        return std::nullopt;
    }
    const DigestKind kind = digestStyle(*element);
    std::optional<std::string> bytes = fromHex(trimmed(element->text));
    if (!bytes || bytes->size() != static_cast<std::size_t>(EVP_MD_get_size(digestMethod(kind)))) {
        malformed(name);
    }
    return Checksum{kind, std::move(*bytes)};
}

std::string fromBase64(std::string_view text, const char* what) {
    std::string packed;
    std::copy_if(text.begin(), text.end(), std::back_inserter(packed),
                 [](char c) { return c != ' ' && c != '\t' && c != '\r' && c != '\n'; });
    std::string bytes(packed.size() / 4 * 3, '\0');
    if (packed.empty() || packed.size() % 4 != 0 ||
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(packed.data()),
                        static_cast<int>(packed.size())) < 0) {
        malformed(what);
    }
    const std::size_t padding = packed.size() - packed.find_last_not_of('=') - 1;
    if (padding > 2) {
        malformed(what);
    }
    bytes.resize(bytes.size() - padding);
    return bytes;
}

EntryData readData(const Element& element) {
    EntryData data;
    data.stored = {number(element, "offset"), number(element, "length")};
    data.size = number(element, "size");
    data.encoding = kPlainEncoding;
    if (const Element* encoding = element.child("encoding")) {
        data.encoding = encoding->attribute("style");
    }
    data.storedChecksum = checksum(element, "archived-checksum");
    data.decodedChecksum = checksum(element, "extracted-checksum");
    return data;
}

Signature readSignature(const Element& element) {
    Signature signature{{number(element, "offset"), number(element, "size")}, {}};
    const Element* keys = element.child("KeyInfo");
    const Element* chain = keys != nullptr ? keys->child("X509Data") : nullptr;
    if (chain == nullptr) {
        malformed("signature without certificates");
    }
    for (const Element& item : chain->children) {
        if (item.name == "X509Certificate") {
            signature.certificates.push_back(fromBase64(item.text, "certificate"));
        }
    }
    if (signature.certificates.empty() || signature.certificates.size() > kMostCertificates) {
        malformed("list of certificates");
    }
    return signature;
}

class EntryList {
  public:
    explicit EntryList(Table& table) : table_(table) {}

    void add(const Element& file, const std::string& folder) {
        const Element* name = file.child("name");
        if (name == nullptr) {
            malformed("entry without a name");
        }
        const std::string own =
            name->attribute("enctype") == "base64" ? fromBase64(name->text, "entry name") : name->text;
        Entry entry;
        entry.path = relativePath(own);
        if (entry.path.empty() || own.find('\0') != std::string::npos) {
            throw Failure("the package has an entry without a name");
        }
        entry.path.insert(0, folder);
        nameBytes_ += entry.path.size();
        if (entry.path.size() > kLongestPath || nameBytes_ > kMostNameBytes) {
            throw Failure("the package's table has names that are too long");
        }
        if (!names_.insert(entry.path).second) {
            throw Failure("the package has two entries of one name: " + inQuotes(entry.path));
        }
        const Element* type = file.child("type");
        const std::string_view kind = type != nullptr ? trimmed(type->text) : "file";
        if (kind != "file" && kind != "directory") {
            throw Failure("the package has an entry that is neither file nor folder: " +
                          inQuotes(entry.path));
        }
        entry.isFolder = kind == "directory";
        if (const Element* data = file.child("data")) {
            if (entry.isFolder) {
                throw Failure("the package has a folder with contents of its own: " + inQuotes(entry.path));
            }
            entry.data = readData(*data);
        }
        const std::string below = entry.path + "/";
        const bool isFolder = entry.isFolder;
        table_.entries.push_back(std::move(entry));
        for (const Element& part : file.children) {
            if (part.name == "ea") {
                table_.entries.push_back({"", false, readData(part)});
            } else if (part.name == "file" && !isFolder) {
                throw Failure("the package has a file with entries in it");
            } else if (part.name == "file") {
                add(part, below);
            }
        }
    }

  private:
    Table& table_;
    std::unordered_set<std::string> names_;
    std::size_t nameBytes_ = 0;
};

const Element& tableOfContents(const Element& root) {
    const Element* toc = root.name == "xar" ? root.child("toc") : nullptr;
    if (toc == nullptr) {
        malformed("root");
    }
    return *toc;
}

Seal readSeal(const Element& toc) {
    Seal seal;
    const Element* digest = toc.child("checksum");
    if (digest == nullptr) {
        malformed("checksum");
    }
    seal.digestKind = digestStyle(*digest);
    seal.digest = {number(*digest, "offset"), number(*digest, "size")};
    if (const Element* signature = toc.child("signature")) {
        if (signature->attribute("style") != "RSA") {
            throw Failure("the package's signature is of an unknown kind", FailureKind::Signature);
        }
        seal.signature = readSignature(*signature);
    }
    return seal;
}

} // namespace

Header parseHeader(std::string_view bytes) {
    if (bytes.size() < kHeaderSize || !bytes.starts_with(kMagic)) {
        throw Failure("not a package: it does not begin like one");
    }
    Header header;
    header.size = fromBigEndian(bytes.substr(4, 2));
    header.tableLength = fromBigEndian(bytes.substr(8, 8));
    header.tableUnpacked = fromBigEndian(bytes.substr(16, 8));
    const std::uint64_t kind = fromBigEndian(bytes.substr(24, 4));
    const bool isNamed = header.size == kLongestHeader && kind == 3 && bytes.size() >= kLongestHeader;
    if ((header.size != kHeaderSize && !isNamed) || fromBigEndian(bytes.substr(6, 2)) != 1) {
        throw Failure("not a package: its header is of an unknown form");
    }
    if (header.tableLength == 0 || header.tableLength > kLargestTable || header.tableUnpacked == 0 ||
        header.tableUnpacked > kLargestTable) {
        throw Failure("not a package: its header states an implausible size of the table");
    }
    if (isNamed) {
        const std::string_view name = bytes.substr(kHeaderSize, kLongestHeader - kHeaderSize);
        const std::optional<DigestKind> named = digestKind(name.substr(0, name.find('\0')));
        if (!named) {
            throw Failure("the package's table has no checksum of a known kind");
        }
        header.digest = *named;
        return header;
    }
    switch (kind) {
    case 1:
        header.digest = DigestKind::Sha1;
        break;
    case 2:
        header.digest = DigestKind::Md5;
        break;
    case 3:
        header.digest = DigestKind::Sha256;
        break;
    case 4:
        header.digest = DigestKind::Sha512;
        break;
    default:
        throw Failure("the package's table has no checksum of a known kind");
    }
    return header;
}

Seal parseSeal(std::string_view xml) {
    return readSeal(tableOfContents(parseXml(xml, kWhat, "file")));
}

Table parseTable(std::string_view xml) {
    const Element root = parseXml(xml, kWhat);
    const Element& toc = tableOfContents(root);
    Table table;
    table.seal = readSeal(toc);
    if (const Element* other = toc.child("x-signature")) {
        table.ignored.push_back({number(*other, "offset"), number(*other, "size")});
    }
    EntryList list(table);
    for (const Element& element : toc.children) {
        if (element.name == "file") {
            list.add(element, "");
        }
    }
    return table;
}

bool accountsForAll(const Table& table, std::uint64_t heapSize) {
    std::vector<Extent> parts = table.ignored;
    parts.push_back(table.seal.digest);
    if (table.seal.signature) {
        parts.push_back(table.seal.signature->place);
    }
    for (const Entry& entry : table.entries) {
        if (entry.data) {
            parts.push_back(entry.data->stored);
        }
    }
    parts.erase(
        std::remove_if(parts.begin(), parts.end(), [](const Extent& part) { return part.length == 0; }),
        parts.end());
    std::sort(parts.begin(), parts.end(),
              [](const Extent& a, const Extent& b) { return a.offset < b.offset; });
    std::uint64_t end = 0;
    std::uint64_t sum = 0;
    for (const Extent& part : parts) {
        if (part.offset < end) {
            throw Failure("the package is damaged: two of its parts overlap");
        }
        end = part.offset + part.length;
        sum += part.length;
        if (end > heapSize) {
            throw Failure("the package is damaged: it breaks off before its end");
        }
    }
    return sum == heapSize;
}

} // namespace package
