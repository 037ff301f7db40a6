// Defines TESK_TEST_SANITIZED in programs built with the address or the thread
// sanitizer: these take up address space and memory of their own, so that neither
// can be limited.

#pragma once

#ifdef __has_feature
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TESK_TEST_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TESK_TEST_SANITIZED
#endif
