#include "ui/StatusTexts.h"

#include <cerrno>

std::string status::causeOf(const std::error_code& error) {
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
