// Linkage and attribute macros shared by every module.
#pragma once

// The internal clapi functions are exported beside the application interface,
// with C linkage so that their names stay plain in the dynamic symbol table.
#define CLAPI_EXPORT extern "C" __attribute__((visibility("default")))

// Lets the compiler check every trace message against its arguments.
#define CLAPI_PRINTF(fmtIndex, firstArg) __attribute__((format(printf, fmtIndex, firstArg)))
