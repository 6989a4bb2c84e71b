#pragma once

/// What the downloader and the rights service exchange on the system bus.
///
/// Authorize()                              asks polkit about the caller's connection, and the user where the
///                                          message allows interaction; answered when that is decided and no
///                                          other attempt is replacing the application
/// Execute(s tool, as arguments, h output)  runs one of the four commands as root for a connection that is
///                                          authorized, each at most once, with the caller's pipe as standard
///                                          output; answered once it runs, which waits for the caller's
///                                          previous command
/// Release()                                ends the authorization, as does the end of the connection; after
/// an
///                                          installer that failed it covers no more than the query of the
///                                          driver
///
/// Each is answered by an empty reply or by one of the errors below.
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

} // namespace rights
