#pragma once

// ZRN_DATASTORE_API marks the classes libDataStore exports; everything else is built with
// hidden visibility. Exceptions are marked too: with hidden type information an application's
// catch clause could fail to match a throw from inside the library.
#if defined(_WIN32)
#if defined(ZRN_DATASTORE_BUILDING)
#define ZRN_DATASTORE_API __declspec(dllexport)
#else
#define ZRN_DATASTORE_API __declspec(dllimport)
#endif
#else
#define ZRN_DATASTORE_API __attribute__((visibility("default")))
#endif
