// QUOLNET_EXPORT: marks the classes and functions that make up the library's public API.
//
// The library is compiled with hidden symbol visibility by default, so a shared libquolnet
// exports only what carries this mark; everything else (internal helpers, the connector's
// logging helpers) stays private to the library and may change between releases without
// breaking the ABI. Interfaces with virtual functions are marked too, so that their type
// information is one object shared by the library and the application.
//
// In a static build the mark is harmless: hidden visibility only affects what a shared
// object exports.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define QUOLNET_EXPORT __attribute__((visibility("default")))
#else
#define QUOLNET_EXPORT
#endif
