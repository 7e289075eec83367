// Marks what the shared library exports. Everything without it is hidden.
#ifndef MIVO_EXPORT_H_
#define MIVO_EXPORT_H_

#if defined(__GNUC__) || defined(__clang__)
#define MIVO_EXPORT __attribute__((visibility("default")))
#else
#define MIVO_EXPORT
#endif

#endif  // MIVO_EXPORT_H_
