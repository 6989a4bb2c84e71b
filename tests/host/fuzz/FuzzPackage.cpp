// Everything that is read from a package's file. The input is such a file, or a table's text, a NUL and the
// heap behind the table's digest: put together here, since no chance change would get a digest right.
#include "Fuzz.h"
#include "installer/Failure.h"
#include "installer/Package.h"
#include "installer/PackageInfo.h"
#include "installer/Payload.h"

#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

using namespace installer;

namespace {

class Nowhere : public PayloadSink {
  public:
    void begin(const PayloadEntry& entry) override {
        if (entry.path.empty() || entry.path.front() == '/' || entry.path.find("..") == 0) {
            __builtin_trap();
        }
    }
    void data(const void*, std::size_t size, std::int64_t) override {
        bytes_ += size;
        if (bytes_ > kMost) {
            throw Failure("enough");
        }
    }
    void end() override {}

  private:
    static constexpr std::size_t kMost = 16 << 20;
    std::size_t bytes_ = 0;
};

std::string bigEndian(std::uint64_t value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) {
        text += static_cast<char>(value >> (8 * i) & 0xff);
    }
    return text;
}

std::string assemble(std::string_view input) {
    const std::size_t end = input.find('\0');
    const std::string_view table = input.substr(0, end);
    uLongf size = compressBound(table.size());
    std::string packed(size, '\0');
    compress2(reinterpret_cast<Bytef*>(packed.data()), &size, reinterpret_cast<const Bytef*>(table.data()),
              table.size(), 1);
    packed.resize(size);
    Digest digest(DigestKind::Sha256);
    digest.update(packed.data(), packed.size());
    return kMagic + bigEndian(kHeaderSize, 2) + bigEndian(1, 2) + bigEndian(packed.size(), 8) +
           bigEndian(table.size(), 8) + bigEndian(3, 4) + packed + digest.finish() +
           std::string(end == std::string_view::npos ? std::string_view() : input.substr(end + 1));
}

} // namespace

void fuzz(std::string_view input) {
    const std::string bytes = input.starts_with(kMagic) ? std::string(input) : assemble(input);
    FileDescriptor file(memfd_create("package", MFD_CLOEXEC));
    if (write(file.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        return;
    }
    try {
        const Package package(std::move(file));
        package.verifyEntries(false);
        if (const Entry* info = package.find("PackageInfo")) {
            parsePackageInfo(package.text(*info, 1 << 16));
        }
        if (const Entry* payload = package.find("Payload")) {
            Nowhere sink;
            readPayload(*package.open(*payload), sink);
        }
    } catch (const Failure&) {
    }
}
