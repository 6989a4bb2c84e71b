#pragma once

/// What pellomar-installer-transaction writes to the program that started it to hold an attempt.
inline constexpr char kSetAside = '+';    ///< the application is set aside, or there is none
inline constexpr char kNotSetAside = '-'; ///< it stands where it was and must not be removed
