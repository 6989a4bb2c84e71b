#include "host/package/EntryReader.h"

#include "host/package/Archive.h"
#include "host/package/Failure.h"
#include "host/package/Text.h"

#include <archive_entry.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>
#include <vector>

namespace package {

namespace {

constexpr std::size_t kBlock = 262144;

// The stored bytes, block by block.
class Source {
  public:
    Source(int file, std::uint64_t start, std::uint64_t length)
        : file_(file), at_(start), left_(length), block_(kBlock) {}

    std::string_view next() {
        const std::size_t wanted = std::min<std::uint64_t>(left_, block_.size());
        if (wanted == 0) {
            return "";
        }
        const ssize_t got = pread(file_, block_.data(), wanted, static_cast<off_t>(at_));
        if (got < 0) {
            throw systemFailure("the package cannot be read");
        }
        if (got == 0) {
            throw Failure("the package is damaged: it breaks off before its end");
        }
        at_ += static_cast<std::uint64_t>(got);
        left_ -= static_cast<std::uint64_t>(got);
        consumed_ += static_cast<std::uint64_t>(got);
        return {block_.data(), static_cast<std::size_t>(got)};
    }

    std::uint64_t consumed() const { return consumed_; }

  private:
    int file_;
    std::uint64_t at_;
    std::uint64_t left_;
    std::atomic<std::uint64_t> consumed_ = 0;
    std::vector<char> block_;
};

[[noreturn]] void damaged(const std::string& how) {
    throw Failure("the package is damaged: " + how);
}

constexpr int kZlibForm = MAX_WBITS;
constexpr int kGzipForm = MAX_WBITS + 16;

class Inflater {
  public:
    explicit Inflater(int form) {
        if (inflateInit2(&stream_, form) != Z_OK) {
            throw std::bad_alloc();
        }
    }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater() { inflateEnd(&stream_); }

    bool needsInput() const { return stream_.avail_in == 0; }
    bool hasEnded() const { return ended_; }
    char nextByte() const { return static_cast<char>(*stream_.next_in); }

    void beginAgain() {
        inflateReset(&stream_);
        ended_ = false;
    }

    void give(std::string_view packed) {
        stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
        stream_.avail_in = static_cast<uInt>(packed.size());
    }

    // How many bytes were put at `out`.
    std::size_t take(char* out, std::size_t size) {
        stream_.next_out = reinterpret_cast<Bytef*>(out);
        stream_.avail_out = static_cast<uInt>(size);
        const int result = inflate(&stream_, Z_NO_FLUSH);
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
            damaged("a compressed part of it cannot be unpacked");
        }
        ended_ = result == Z_STREAM_END;
        return size - stream_.avail_out;
    }

  private:
    z_stream stream_{};
    bool ended_ = false;
};

} // namespace

class EntryReader::Decoder {
  public:
    Decoder(int file, const Extent& extent) : source(file, extent.offset, extent.length) {}
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;
    virtual ~Decoder() = default;

    virtual std::string_view next() { return source.next(); } // bytes as they are

    Source source;
};

namespace {

class ZlibDecoder : public EntryReader::Decoder {
  public:
    ZlibDecoder(int file, const Extent& extent) : Decoder(file, extent), block_(kBlock) {}

    std::string_view next() override {
        std::size_t got = 0;
        while (got == 0 && !inflater_.hasEnded()) {
            if (inflater_.needsInput()) {
                const std::string_view packed = source.next();
                if (packed.empty()) {
                    damaged("a compressed part of it breaks off");
                }
                inflater_.give(packed);
            }
            got = inflater_.take(block_.data(), block_.size());
        }
        return {block_.data(), got};
    }

  private:
    Inflater inflater_{kZlibForm};
    std::vector<char> block_;
};

class FilterDecoder : public EntryReader::Decoder {
  public:
    FilterDecoder(int file, const Extent& extent, int (*filter)(archive*))
        : Decoder(file, extent), reader_(archive_read_new()) {
        archive_entry* entry = nullptr;
        if (!reader_ || filter(reader_.get()) < ARCHIVE_WARN ||
            archive_read_support_format_raw(reader_.get()) != ARCHIVE_OK ||
            archive_read_open(reader_.get(), this, nullptr, read, nullptr) != ARCHIVE_OK ||
            archive_read_next_header(reader_.get(), &entry) != ARCHIVE_OK) {
            damaged("a compressed part of it cannot be unpacked");
        }
    }

    std::string_view next() override {
        const void* bytes = nullptr;
        std::size_t size = 0;
        la_int64_t offset = 0;
        int result = ARCHIVE_OK;
        while (result == ARCHIVE_OK && size == 0) {
            result = archive_read_data_block(reader_.get(), &bytes, &size, &offset);
        }
        if (result != ARCHIVE_OK && result != ARCHIVE_EOF) {
            damaged(lastError(reader_.get()));
        }
        return {static_cast<const char*>(bytes), result == ARCHIVE_OK ? size : 0};
    }

  private:
    static la_ssize_t read(archive* reader, void* self, const void** bytes) {
        try {
            const std::string_view block = static_cast<FilterDecoder*>(self)->source.next();
            *bytes = block.data();
            return static_cast<la_ssize_t>(block.size());
        } catch (const Failure& problem) {
            archive_set_error(reader, EILSEQ, "%s", problem.what());
            return -1;
        }
    }

    ArchiveReader reader_;
};

std::unique_ptr<EntryReader::Decoder> makeDecoder(int file, const Extent& extent,
                                                  const std::string& encoding) {
    if (encoding == kPlainEncoding) {
        return std::make_unique<EntryReader::Decoder>(file, extent);
    }
    if (encoding == "application/x-gzip") { // a zlib stream, despite the name
        return std::make_unique<ZlibDecoder>(file, extent);
    }
    if (encoding == "application/x-bzip2") {
        return std::make_unique<FilterDecoder>(file, extent, archive_read_support_filter_bzip2);
    }
    // Others could take any amount of memory, and no package uses them.
    throw Failure("the package has a part in the encoding " + inQuotes(encoding) +
                  "; use gzip, bzip2 or none instead");
}

} // namespace

EntryReader::EntryReader(int file, std::uint64_t start, const EntryData& data)
    : decoder_(makeDecoder(file, {start, data.stored.length}, data.encoding)), data_(data) {
    if (data.decodedChecksum) {
        digest_ = std::make_unique<Digest>(data.decodedChecksum->kind);
    }
}

EntryReader::~EntryReader() = default;

std::string_view EntryReader::next() {
    if (ended_) {
        return "";
    }
    const std::string_view block = decoder_->next();
    decoded_ += block.size();
    ended_ = block.empty();
    if (decoded_ > data_.size || (ended_ && decoded_ < data_.size)) {
        damaged("a part of it is not of the size that it states");
    }
    if (digest_ && !ended_) {
        digest_->update(block.data(), block.size());
    }
    if (digest_ && ended_ && digest_->finish() != data_.decodedChecksum->bytes) {
        damaged("a part of it does not match its checksum once unpacked");
    }
    return block;
}

std::uint64_t EntryReader::consumed() const {
    return decoder_->source.consumed();
}

class GzipReader::State {
  public:
    explicit State(EntryReader& reader) : reader_(reader) {}

    std::size_t read(char* to, std::size_t most) {
        if (!isBegun_) {
            begin();
        }
        return isPlain_ ? copy(to, most) : inflate(to, most);
    }

  private:
    void begin() {
        isBegun_ = true;
        packed_ = reader_.next();
        isPlain_ = packed_.starts_with("0707");
        if (!isPlain_ && !packed_.starts_with("\x1f\x8b")) {
            throw Failure(
                "the package's payload is damaged or of an unknown form; pack it with cpio and gzip");
        }
        inflater_.give(packed_);
    }

    std::size_t copy(char* to, std::size_t most) {
        if (packed_.empty()) {
            packed_ = reader_.next();
        }
        const std::size_t size = packed_.copy(to, most);
        packed_.remove_prefix(size);
        return size;
    }

    std::size_t inflate(char* to, std::size_t most) {
        std::size_t got = 0;
        while (got < most && hasMore()) {
            got += inflater_.take(to + got, most - got);
        }
        return got;
    }

    // Makes input ready. A stream may be followed by another, or by anything else, which is ignored.
    bool hasMore() {
        if (inflater_.needsInput()) {
            packed_ = reader_.next();
            if (packed_.empty() && !inflater_.hasEnded()) {
                damaged("its payload breaks off");
            }
            inflater_.give(packed_);
        }
        if (inflater_.hasEnded() && !packed_.empty() && inflater_.nextByte() == '\x1f') {
            inflater_.beginAgain();
        }
        if (inflater_.hasEnded()) { // what follows counts for the checksum
            while (!reader_.next().empty()) {
            }
        }
        return !inflater_.hasEnded();
    }

    EntryReader& reader_;
    std::string_view packed_;
    bool isBegun_ = false;
    bool isPlain_ = false;
    Inflater inflater_{kGzipForm};
};

GzipReader::GzipReader(EntryReader& reader) : state_(std::make_unique<State>(reader)) {}

GzipReader::~GzipReader() = default;

std::size_t GzipReader::read(char* to, std::size_t most) {
    return state_->read(to, most);
}

std::string inflated(std::string_view packed, std::size_t size, const std::string& what) {
    std::string text(size + 1, '\0'); // one more, to see a stream that is too long
    Inflater inflater(kZlibForm);
    inflater.give(packed);
    std::size_t got = 0;
    while (!inflater.hasEnded() && got < text.size()) {
        const std::size_t more = inflater.take(text.data() + got, text.size() - got);
        if (more == 0 && !inflater.hasEnded()) {
            break;
        }
        got += more;
    }
    if (!inflater.hasEnded() || !inflater.needsInput() || got != size) {
        throw Failure(what + " is damaged");
    }
    text.resize(size);
    return text;
}

} // namespace package
