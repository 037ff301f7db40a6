// What shared libraries show of themselves; all else in them is hidden.

#pragma once

#if defined(__GNUC__)
#define TESK_BAM_EXPORT __attribute__((visibility("default")))
#else
#define TESK_BAM_EXPORT
#endif
