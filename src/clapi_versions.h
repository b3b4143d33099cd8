// The library's version texts.
#pragma once

#include "qva_version.h"  // generated from the project's version

inline constexpr char kDllVersion[] = QVA_VERSION_TEXT;
inline constexpr char kApiVersion[] = "2.1.0.0";
inline constexpr char kBuildLevel[] = "r800-20101014";
inline constexpr char kProtocolVersion[] = "7.2.0.0";
