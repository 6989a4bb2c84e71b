#pragma once

#include <string>
#include <system_error>

/// The texts of the status and speed labels.
namespace status {

inline constexpr char kNoSpeed[] = "0 KB/s";

inline constexpr char kCheckingNetwork[] = "正在检测网络";
inline constexpr char kCannotCreateTemporaryFile[] = "无法创建临时文件";
inline constexpr char kDownloading[] = "正在下载Pellomar";
inline constexpr char kStopped[] = "已停止下载";
inline constexpr char kNetworkFailure[] = "网络异常，请稍后重试";
inline constexpr char kFileMissing[] = "文件不存在，请前往下载新版本Pellomar下载器";
inline constexpr char kDownloadFailed[] = "下载失败，请直接双击镜像中的APP开始下载";

inline constexpr char kDownloaded[] = "已完成下载";
inline constexpr char kNoRights[] = "获取权限失败，请重试";
inline constexpr char kUninstalling[] = "正在卸载Pellomar";
inline constexpr char kInstalling[] = "正在安装Pellomar";
inline constexpr char kInstallerDidNotStart[] = "安装Pellomar失败了，请联系反馈群或者重新尝试进行安装";
inline constexpr char kInstallFailed[] = "安装Pellomar失败，请尝试重新下载安装!";
inline constexpr char kQueryingDriver[] = "正在查询vbox驱动状态";
inline constexpr char kInstallingDriver[] = "正在安装vbox驱动";
inline constexpr char kDriverFailed[] = "安装vbox驱动失败，请重试";
inline constexpr char kSeeForum[] = "安装Pellomar失败，请前往论坛查看安装教程";
inline constexpr char kLaunching[] = "正在启动Pellomar";
inline constexpr char kLaunchFailed[] = "启动Pellomar失败";

/// A short text that names the cause of a failed file operation.
std::string causeOf(const std::error_code& error);

} // namespace status
