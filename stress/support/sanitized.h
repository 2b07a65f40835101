#pragma once

namespace tidegate::stress {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TIDEGATE_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TIDEGATE_SANITIZED 1
#endif
#endif

// Whether this is a sanitizer's build. Its runtime does not survive a fork with live threads.
#ifdef TIDEGATE_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

}  // namespace tidegate::stress
