#pragma once

// The marker of the point layer's interface; everything else stays hidden.
#if defined(_WIN32)
#  if defined(KVR_CLOUD_BUILDING)
#    define KVR_CLOUD_API __declspec(dllexport)
#  else
#    define KVR_CLOUD_API __declspec(dllimport)
#  endif
#else
#  define KVR_CLOUD_API __attribute__((visibility("default")))
#endif
