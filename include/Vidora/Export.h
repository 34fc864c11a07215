#ifndef VIDORA_EXPORT_H
#define VIDORA_EXPORT_H

// Symbols of the library are hidden; the exported classes and functions carry the mark VIDORA_API. The private records
// inside an exported class, which it would export as well, carry VIDORA_LOCAL.
#if defined(__GNUC__)
#define VIDORA_API __attribute__((visibility("default")))
#define VIDORA_LOCAL __attribute__((visibility("hidden")))
#else
#define VIDORA_API
#define VIDORA_LOCAL
#endif

// A printf-style function: `format_index` and `first_index` count from 1 (2 for the first argument of a member).
#if defined(__GNUC__)
#define VIDORA_PRINTF(format_index, first_index) __attribute__((format(printf, format_index, first_index)))
#else
#define VIDORA_PRINTF(format_index, first_index)
#endif

#endif  // VIDORA_EXPORT_H
