#ifndef PELLIX_EXPORT_H
#define PELLIX_EXPORT_H

/* The one export macro of the library. Everything is hidden by default; only what is
 * marked PELLIX_EXPORT is visible in libpellix_library.so. */
#if defined(PELLIX_BUILDING_LIBRARY)
#define PELLIX_EXPORT __attribute__((visibility("default")))
#else
#define PELLIX_EXPORT
#endif

#endif
