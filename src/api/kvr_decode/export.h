#pragma once

// The one marker of the library's interface. Everything else is hidden.
#if defined(_WIN32)
#  if defined(KVR_DECODE_BUILDING)
#    define KVR_API __declspec(dllexport)
#  else
#    define KVR_API __declspec(dllimport)
#  endif
#else
#  define KVR_API __attribute__((visibility("default")))
#endif
