#pragma once

/// What the downloader and the rights service exchange on the system bus. Each call is answered by a reply or
/// by one of the errors below. The service takes no descriptors: closing one can block.
///
/// Authorize()
///     Asks polkit whether the caller's connection is authorized; polkit may ask the user if the message
///     allows interaction. Replies when that is decided and no other attempt is replacing the application.
///
/// Execute(s tool, as arguments) -> h output
///     Runs one of the four commands as root for an authorized connection, each at most once. Replies when
///     the tool has started; it starts after the caller's previous tool has ended. `output` is the read end
///     of a pipe to which only the tool writes. After an installer that failed, only the driver query is
///     allowed.
///
/// The end of the connection ends the authorization.
namespace rights {

/// The service's name on the bus, its interface, and polkit's name of the right.
inline constexpr char kBusName[] = "com.norvik.PellomarDownloader";
inline constexpr char kObjectPath[] = "/com/norvik/PellomarDownloader";

inline constexpr char kErrorRefused[] = "com.norvik.PellomarDownloader.Error.Refused";
inline constexpr char kErrorCanceled[] = "com.norvik.PellomarDownloader.Error.Canceled"; ///< dialog closed
inline constexpr char kErrorNotAuthorized[] = "com.norvik.PellomarDownloader.Error.NotAuthorized";
inline constexpr char kErrorNotAllowed[] =
    "com.norvik.PellomarDownloader.Error.NotAllowed"; ///< these arguments
inline constexpr char kErrorNotStarted[] = "com.norvik.PellomarDownloader.Error.NotStarted";

/// The bus itself, and polkit.
inline constexpr char kBusDaemon[] = "org.freedesktop.DBus";
inline constexpr char kBusPath[] = "/org/freedesktop/DBus";
inline constexpr char kPolkit[] = "org.freedesktop.PolicyKit1";
inline constexpr char kAuthority[] = "org.freedesktop.PolicyKit1.Authority";
inline constexpr char kAuthorityPath[] = "/org/freedesktop/PolicyKit1/Authority";

} // namespace rights
