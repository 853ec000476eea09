#pragma once

// ZRN_COMMON_API marks the classes and functions libCommon exports; everything else is
// built with hidden visibility.
#if defined(_WIN32)
#if defined(ZRN_COMMON_BUILDING)
#define ZRN_COMMON_API __declspec(dllexport)
#else
#define ZRN_COMMON_API __declspec(dllimport)
#endif
#else
#define ZRN_COMMON_API __attribute__((visibility("default")))
#endif
