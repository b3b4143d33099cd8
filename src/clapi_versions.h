// The library's version texts.
#pragma once

inline constexpr char kDllVersion[] = "8.0.0.1";
inline constexpr char kApiVersion[] = "2.1.0.0";
inline constexpr char kBuildLevel[] = "r800-20101014";
inline constexpr char kProtocolVersion[] = "7.2.0.0";
