// The one export macro of the library. Everything else is built with hidden visibility.
#ifndef KELO_EXPORT_H_
#define KELO_EXPORT_H_

#if defined(KELO_BUILDING_LIBRARY)
#define KELO_EXPORT __attribute__((visibility("default")))
#else
#define KELO_EXPORT
#endif

#endif  // KELO_EXPORT_H_
