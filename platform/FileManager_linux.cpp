#include "base/FileDescriptor.h"
#include "base/ReadWrite.h"
#include "platform/FileManager.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

bool fileExists(const std::string& path, bool* isDirectory) {
    std::error_code failed;
    const fs::file_status status = fs::status(path, failed);
    if (isDirectory != nullptr) {
        *isDirectory = fs::is_directory(status);
    }
    return fs::exists(status);
}

std::error_code createDirectory(const std::string& path) {
    std::error_code failed;
    fs::create_directories(path, failed);
    return failed;
}

std::error_code removeItem(const std::string& path) {
    std::error_code failed;
    if (fs::remove_all(path, failed) == 0 && !failed) {
        failed = std::make_error_code(std::errc::no_such_file_or_directory);
    }
    return failed;
}

std::error_code moveItem(const std::string& from, const std::string& to) {
    std::error_code failed;
    if (fs::exists(fs::symlink_status(to, failed))) {
        return std::make_error_code(std::errc::file_exists);
    }
    fs::rename(from, to, failed);
    return failed;
}

bool createFile(const std::string& path) {
    return FileDescriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)).isOpen();
}

std::optional<std::string> readFile(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file.isOpen() ? readAll(file.get()) : std::nullopt;
}

std::string localizedDescription(const std::error_code& error) {
    switch (error.value()) {
    case EACCES:
    case EPERM:
        return "没有写入权限，请检查文件夹权限";
    case ENOSPC:
        return "磁盘空间不足，请清理后重试";
    case EDQUOT:
        return "磁盘配额已用完，请清理后重试";
    case EROFS:
        return "磁盘是只读的，无法写入";
    case ENOTDIR:
        return "路径中有一项不是文件夹";
    case EEXIST:
        return "同名项目已存在";
    case ENOENT:
        return "文件夹不存在";
    case ENAMETOOLONG:
        return "路径太长";
    case ELOOP:
        return "路径中的符号链接过多";
    case EBUSY:
        return "项目正被占用，请稍后重试";
    case EIO:
        return "磁盘读写出错，请检查磁盘";
    default:
        return "系统错误（代码 " + std::to_string(error.value()) + "）";
    }
}
