// The mark of the public API. The shared library is built with hidden visibility, so only
// classes and functions marked SORVAN_EXPORT are visible to applications; everything else
// stays private to the library and may change in any release.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define SORVAN_EXPORT __attribute__((visibility("default")))
#else
#define SORVAN_EXPORT
#endif
