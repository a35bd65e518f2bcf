// Symbol visibility for the plug-in: everything is hidden by default
// (-fvisibility=hidden) and only what carries DTL_EXPORT is exported.
#pragma once

#define DTL_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define DTL_EXTERN_C_BEGIN extern "C" {
#define DTL_EXTERN_C_END }
#else
#define DTL_EXTERN_C_BEGIN
#define DTL_EXTERN_C_END
#endif
