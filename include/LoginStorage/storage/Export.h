// LOGINSTORAGE_EXPORT marks what the shared library exports. Everything else is
// built with hidden visibility and stays private to libLoginStorage.so.
#ifndef LOGINSTORAGE_STORAGE_EXPORT_H
#define LOGINSTORAGE_STORAGE_EXPORT_H

#if defined(__GNUC__)
#define LOGINSTORAGE_EXPORT __attribute__((visibility("default")))
#else
#define LOGINSTORAGE_EXPORT
#endif

#endif
