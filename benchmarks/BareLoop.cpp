// A lower bound for such a download: the length probe and a transfer with the product's options, each block
// written and flushed before the next, and nothing else.
#include <curl/curl.h>

#include <cstdio>
#include <memory>

namespace {

using EasyHandle = std::unique_ptr<CURL, void (*)(CURL*)>;

std::size_t writeAndFlush(char* data, std::size_t size, std::size_t count, void* stream) {
    auto* const file = static_cast<FILE*>(stream);
    const std::size_t written = fwrite(data, size, count, file);
    fflush(file);
    return written;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "Usage: %s URL FILE\n", argv[0]);
        return 2;
    }
    curl_global_init(CURL_GLOBAL_ALL);
    const EasyHandle probe(curl_easy_init(), curl_easy_cleanup);
    curl_easy_setopt(probe.get(), CURLOPT_URL, argv[1]);
    curl_easy_setopt(probe.get(), CURLOPT_NOBODY, 1L);
    if (curl_easy_perform(probe.get()) != CURLE_OK) {
        return 1;
    }

    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(argv[2], "abe"), fclose);
    if (file == nullptr) {
        return 1;
    }
    setvbuf(file.get(), nullptr, _IONBF, 0);
    const EasyHandle transfer(curl_easy_init(), curl_easy_cleanup);
    curl_easy_setopt(transfer.get(), CURLOPT_URL, argv[1]);
    curl_easy_setopt(transfer.get(), CURLOPT_WRITEFUNCTION, writeAndFlush);
    curl_easy_setopt(transfer.get(), CURLOPT_WRITEDATA, file.get());
    curl_easy_setopt(transfer.get(), CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(0));
    curl_easy_setopt(transfer.get(), CURLOPT_CONNECTTIMEOUT, 30L);
    return curl_easy_perform(transfer.get()) == CURLE_OK ? 0 : 1;
}
