#include "host/installer/PackageFile.h"

#include "base/ChildProcess.h"
#include "base/RootEnvironment.h"
#include "host/package/Failure.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace installer {

using namespace package;

namespace {

constexpr char kCannotOpen[] = "the package cannot be opened";
// Opening must not block, whatever the file is.
constexpr int kHow = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// What the child sends: why the file could not be opened, or 0, its status and the descriptor.
struct Answer {
    struct Result {
        int cause = 0;
        struct stat status{};
    };
    Result result;
    iovec content{&result, sizeof result};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header{};

    Answer() {
        header.msg_iov = &content;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
    }
};

void send(int socket, int descriptor, int cause) {
    Answer answer;
    answer.result.cause = cause != 0 || fstat(descriptor, &answer.result.status) == 0 ? cause : errno;
    if (answer.result.cause == 0) {
        cmsghdr* const item = CMSG_FIRSTHDR(&answer.header);
        item->cmsg_level = SOL_SOCKET;
        item->cmsg_type = SCM_RIGHTS;
        item->cmsg_len = CMSG_LEN(sizeof descriptor);
        memcpy(CMSG_DATA(item), &descriptor, sizeof descriptor);
    } else {
        answer.header.msg_controllen = 0;
    }
    sendmsg(socket, &answer.header, MSG_NOSIGNAL);
}

bool becomeUser(uid_t user) {
    const passwd* const entry = getpwuid(user);
    return entry != nullptr && initgroups(entry->pw_name, entry->pw_gid) == 0 &&
           setresgid(entry->pw_gid, entry->pw_gid, entry->pw_gid) == 0 && setresuid(user, user, user) == 0;
}

// Keeps nothing but the socket open: its user can stop this process, while others wait for the end of the
// output and of the attempt.
[[noreturn]] void openAs(uid_t user, const std::string& path, int socket) {
    errno = ENOENT; // if there is no such user
    open_how how{};
    how.flags = kHow | O_NOFOLLOW;
    how.resolve = RESOLVE_NO_MAGICLINKS; // which lead anywhere, whoever may enter the folders above
    long opened = -1;
    const bool isConnected = dup2(socket, STDIN_FILENO) == STDIN_FILENO;
    closefrom(STDIN_FILENO + 1);
    if (isConnected && becomeUser(user)) {
        opened = syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
    }
    send(STDIN_FILENO, static_cast<int>(opened), opened < 0 ? errno : 0);
    _exit(0);
}

uid_t userFrom(std::string_view text) {
    uid_t user = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), user);
    if (problem != std::errc() || end != text.data() + text.size()) {
        throw Failure(std::string(kPackageUser) + " is not the number of a user", FailureKind::Usage);
    }
    return user;
}

} // namespace

PackageFile::PackageFile(std::string path) : path_(std::move(path)) {
    const char* const user = std::getenv(kPackageUser);
    if (user == nullptr) {
        return;
    }
    user_ = userFrom(user);
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw systemFailure(kCannotOpen);
    }
    fromChild_ = FileDescriptor(ends[0]);
    const FileDescriptor its(ends[1]);
    const pid_t process = fork();
    if (process == 0) {
        // Nothing waits for the grandchild: its user may stop it.
        if (fork() == 0) {
            openAs(*user_, path_, its.get());
        }
        _exit(0);
    }
    if (process < 0) {
        throw systemFailure(kCannotOpen);
    }
    waitUntilExit(process);
}

OpenedFile PackageFile::open() {
    if (!user_) {
        FileDescriptor file(::open(path_.c_str(), kHow));
        if (!file.isOpen()) {
            throw systemFailure(kCannotOpen);
        }
        return file;
    }
    constexpr int kPatience = 10'000;
    pollfd answered{fromChild_.get(), POLLIN, 0};
    Answer answer;
    int descriptor = -1;
    if (poll(&answered, 1, kPatience) <= 0 ||
        recvmsg(fromChild_.get(), &answer.header, MSG_CMSG_CLOEXEC) != sizeof answer.result) {
        throw Failure(std::string(kCannotOpen) + " by its user");
    }
    if (answer.result.cause != 0) {
        errno = answer.result.cause;
        throw systemFailure(kCannotOpen);
    }
    if (const cmsghdr* const item = CMSG_FIRSTHDR(&answer.header);
        item != nullptr && item->cmsg_type == SCM_RIGHTS) {
        memcpy(&descriptor, CMSG_DATA(item), sizeof descriptor);
    }
    OpenedFile file;
    file.descriptor = FileDescriptor(descriptor);
    file.status = answer.result.status;
    if (!file.descriptor.isOpen()) {
        throw Failure(kCannotOpen);
    }
    if (file.status.st_uid != *user_) {
        throw Failure("the package is not its user's own file");
    }
    return file;
}

} // namespace installer
