#pragma once

/// The states of the second screen as the user sees them. The table of what each shows is in ScreenState.cpp.
enum class ScreenState {
    Downloading,    ///< the second screen when it is built
    Stopped,        ///< the user pressed stop
    Resumed,        ///< the user pressed continue
    NetworkFailure, ///< the body transfer failed; it can be continued
    ProbeFailed,    ///< the package was not found or the transfer could not start; no button is shown
    Installing,     ///< an install attempt runs
    InstallAgain,   ///< no rights, or the driver failed: the attempt can be repeated
    DownloadAgain,  ///< the package did not install; it can be downloaded again
    Retried,        ///< the user pressed retry
};

/// What entering a state does to a control.
enum class Visibility { Unchanged, Shown, Hidden };

struct ScreenVisibility {
    Visibility stop;
    Visibility continueDownload;
    Visibility continueInstall;
    Visibility retryDownload;
    Visibility progressAndSpeed;
};

/// The table's row for `state`.
ScreenVisibility visibilityIn(ScreenState state);
