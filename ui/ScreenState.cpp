#include "ui/ScreenState.h"

ScreenVisibility visibilityIn(ScreenState state) {
    constexpr Visibility keep = Visibility::Unchanged;
    constexpr Visibility show = Visibility::Shown;
    constexpr Visibility hide = Visibility::Hidden;
    switch (state) {
        // clang-format off
    //                                     stop  cont. inst. retry bar, speed
    case ScreenState::Downloading:    return {show, hide, hide, hide, show};
    case ScreenState::Stopped:        return {hide, show, keep, keep, keep};
    case ScreenState::Resumed:        return {show, hide, keep, keep, keep};
    case ScreenState::NetworkFailure: return {hide, show, keep, keep, keep};
    case ScreenState::ProbeFailed:    return {hide, hide, keep, keep, hide};
    case ScreenState::Installing:     return {hide, hide, hide, hide, keep};
    case ScreenState::InstallAgain:   return {keep, keep, show, keep, keep};
    case ScreenState::DownloadAgain:  return {keep, keep, keep, show, keep};
    case ScreenState::Retried:        return {keep, keep, keep, hide, keep};
        // clang-format on
    }
    return {keep, keep, keep, keep, keep};
}
