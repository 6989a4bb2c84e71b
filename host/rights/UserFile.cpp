#include "rights/UserFile.h"

#include "base/ChildProcess.h"
#include "base/RootTools.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace rights {

namespace {

/// A message of one byte, with room for one descriptor.
struct DescriptorMessage {
    char byte = 0;
    iovec content{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header{};

    DescriptorMessage() {
        header.msg_iov = &content;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
    }
};

void sendDescriptor(int socket, int descriptor) {
    DescriptorMessage message;
    cmsghdr* const item = CMSG_FIRSTHDR(&message.header);
    item->cmsg_level = SOL_SOCKET;
    item->cmsg_type = SCM_RIGHTS;
    item->cmsg_len = CMSG_LEN(sizeof descriptor);
    memcpy(CMSG_DATA(item), &descriptor, sizeof descriptor);
    sendmsg(socket, &message.header, MSG_NOSIGNAL);
}

constexpr int kKept = 3;

/// Moves the descriptor to kKept and closes all others but the standard streams.
bool keepOnly(int descriptor) {
    return dup2(descriptor, kKept) == kKept && close_range(kKept + 1, ~0U, 0) == 0;
}

bool becomeUser(uid_t user) {
    const passwd* const entry = getpwuid(user);
    return entry != nullptr && initgroups(entry->pw_name, entry->pw_gid) == 0 &&
           setresgid(entry->pw_gid, entry->pw_gid, entry->pw_gid) == 0 && setresuid(user, user, user) == 0;
}

} // namespace

FileDescriptor openPackageAs(uid_t user, const std::string& path) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return {};
    }
    FileDescriptor ours(ends[0]);
    const FileDescriptor theirs(ends[1]);
    const pid_t process = fork();
    if (process == 0) {
        // A grandchild, which is not waited for: its user can stop it with a signal. It then must not keep
        // anything open that others wait for, such as an attempt's transaction.
        if (fork() == 0 && keepOnly(theirs.get()) && becomeUser(user)) {
            const FileDescriptor package = openPackage(path);
            if (package.isOpen()) {
                sendDescriptor(kKept, package.get());
            }
        }
        _exit(0);
    }
    if (process < 0) {
        return {};
    }
    waitUntilExit(process);
    return ours;
}

FileDescriptor receiveDescriptor(int socket) {
    DescriptorMessage message;
    int descriptor = -1;
    if (recvmsg(socket, &message.header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) > 0) {
        const cmsghdr* const item = CMSG_FIRSTHDR(&message.header);
        if (item != nullptr && item->cmsg_type == SCM_RIGHTS) {
            memcpy(&descriptor, CMSG_DATA(item), sizeof descriptor);
        }
    }
    return FileDescriptor(descriptor);
}

} // namespace rights
