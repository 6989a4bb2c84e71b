#include "platform/FileManager.h"
#include "transfer/CurlWrapper.h"
#include "transfer/Transfer.h"

#include <curl/curl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <set>

namespace {

class Disk : public Transfer {
  protected:
    /// Downloads to a file that has no room for the document, then, when `makeRoom` has run, the rest.
    void expectToGoOnWhere(const std::string& path, const std::function<void()>& makeRoom) {
        const auto fetch = [&](std::int64_t offset) {
            return onWorker([&] { return CurlWrapper::SyncDownloadToFile(server_.url(), path, offset); });
        };
        const Outcome full = fetch(0);
        makeRoom();
        EXPECT_EQ(full.result, CURLE_WRITE_ERROR);
        expectBodyTransfer(full, Ending::Failed);
        struct stat status {};
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        // Only what reached the file was counted, and all of it.
        EXPECT_EQ(full.bytes(), status.st_size);
        EXPECT_GT(full.bytes(), 0);
        expectBodyTransfer(fetch(full.bytes()), Ending::Finished);
        EXPECT_EQ(sha256(readFile(path).value_or("")), sha256(document_));
    }
};

TEST_F(Disk, FullFileSystemLosesNothing) {
    const std::string folder = folder_.path() + "/small";
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    if (mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "a small file system can't be mounted here: " << std::strerror(errno);
    }
    expectToGoOnWhere(folder + "/Pellomar.tmp",
                      [&] { EXPECT_EQ(mount("tmpfs", folder.c_str(), "tmpfs", MS_REMOUNT, "size=1m"), 0); });
    EXPECT_EQ(umount(folder.c_str()), 0);
}

// Like a full disk, and needs no rights.
TEST_F(Disk, FileSizeLimitLosesNothing) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{50'001, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    expectToGoOnWhere(path_, [&] { EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0); });
}

// A record of 0 bytes would say that the user stopped.
TEST_F(Disk, NoRoomForASingleByteIsAFailure) {
    const Outcome outcome =
        onWorker([&] { return CurlWrapper::SyncDownloadToFile(server_.url(), "/dev/full", 0); });
    EXPECT_EQ(outcome.result, CURLE_WRITE_ERROR);
    expectBodyTransfer(outcome, Ending::Failed);
    EXPECT_EQ(outcome.records.size(), 2U);
}

TEST_F(Disk, AFileThatCannotBeOpenedFailsBeforeAnythingIsAsked) {
    std::set<std::int64_t> tokens;
    const std::string paths[] = {folder_.path() + "/missing/Pellomar.tmp", folder_.path(), ""};
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        const Outcome outcome =
            onWorker([&] { return CurlWrapper::SyncDownloadToFile(server_.url(), path, 0); });
        EXPECT_EQ(outcome.result, CURLE_WRITE_ERROR);
        ASSERT_EQ(outcome.records.size(), 1U);
        const CurlMessage& record = outcome.records[0];
        EXPECT_EQ(record.itype(), CurlMessageTypeData);
        EXPECT_EQ(record.status(), -1);
        EXPECT_EQ(record.iMessage(), 0);
        tokens.insert(record.identifier());
    }
    EXPECT_EQ(tokens.size(), std::size(paths));
    EXPECT_FALSE(tokens.contains(0));
    EXPECT_FALSE(tokens.contains(-1));
    EXPECT_TRUE(server_.requests().empty());
}

} // namespace
