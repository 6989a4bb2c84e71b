#pragma once

/// The installed product, as this program knows it.
inline constexpr char kApplicationPath[] = "/Applications/Pellomar.app";
inline constexpr char kApplicationProcess[] = "Pellomar";
