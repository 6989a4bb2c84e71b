#pragma once

/// What pellomar-installer-transaction writes to the program that started it to hold an attempt.
inline constexpr char kSetAside = '+';    ///< the application is set aside, or there is none
inline constexpr char kNotSetAside = '-'; ///< it is at its place and must not be removed
