// Whether this is a build with a sanitizer, whose library has threads, memory and system calls of
// its own.
#ifndef VEX_FRAMEWORK_PROCESS_SANITIZED_H
#define VEX_FRAMEWORK_PROCESS_SANITIZED_H

namespace vex {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

// That it has started by itself.
#if defined(__SANITIZE_THREAD__)
inline constexpr int kSanitizersThreads = 1;
#else
inline constexpr int kSanitizersThreads = 0;
#endif

}  // namespace vex

#endif
