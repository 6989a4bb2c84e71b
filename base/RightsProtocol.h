#pragma once

/// The words that the downloader and the rights mechanism exchange on the system bus.
///
/// Authorize()                              asks polkit about the caller's connection, and a person where the
///                                          message allows interaction; answers when that is settled
/// Execute(s tool, as arguments, h output)  starts a tool as root for a connection that is authorized, with
///                                          the caller's pipe as standard output; answers once it runs
/// Release()                                ends the authorization, which otherwise ends with the connection
///
/// Each is answered by an empty reply or by one of the errors below.
namespace rights {

/// The service's name on the bus, its interface, and polkit's name of the right.
inline constexpr char kBusName[] = "com.norvik.PellomarDownloader";
inline constexpr char kObjectPath[] = "/com/norvik/PellomarDownloader";

inline constexpr char kErrorRefused[] = "com.norvik.PellomarDownloader.Error.Refused";
inline constexpr char kErrorCanceled[] = "com.norvik.PellomarDownloader.Error.Canceled"; ///< dialog closed
inline constexpr char kErrorNotAuthorized[] = "com.norvik.PellomarDownloader.Error.NotAuthorized";
inline constexpr char kErrorNotAllowed[] = "com.norvik.PellomarDownloader.Error.NotAllowed"; ///< what it asks
inline constexpr char kErrorNotStarted[] = "com.norvik.PellomarDownloader.Error.NotStarted";

} // namespace rights
