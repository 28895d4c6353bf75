// Names for Clang's thread-safety attributes, and what ThreadSanitizer is told of our own lock. Other compilers
// and builds see nothing.
//
// The clang build runs with -Wthread-safety -Werror, so a guarded member read without its lock does not compile,
// nor does a lock that is taken out of order where one function takes both; where two functions do, the sanitizer
// sees it at run time. The macros carry a prefix because public headers use them.
#pragma once

#if defined(__clang__)
#define DC_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define DC_THREAD_ATTRIBUTE(x)
#endif

#define DC_CAPABILITY(name) DC_THREAD_ATTRIBUTE(capability(name))
#define DC_SCOPED_CAPABILITY DC_THREAD_ATTRIBUTE(scoped_lockable)
#define DC_GUARDED_BY(lock) DC_THREAD_ATTRIBUTE(guarded_by(lock))
#define DC_ACQUIRED_BEFORE(...) DC_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define DC_ACQUIRED_AFTER(...) DC_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define DC_REQUIRES(...) DC_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define DC_ACQUIRE(...) DC_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define DC_RELEASE(...) DC_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define DC_NO_THREAD_SAFETY_ANALYSIS DC_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#if defined(__has_feature)
#define DC_HAS_FEATURE(feature) __has_feature(feature)
#else
#define DC_HAS_FEATURE(feature) 0
#endif
#if defined(__SANITIZE_THREAD__) || DC_HAS_FEATURE(thread_sanitizer)
#include <sanitizer/tsan_interface.h>
#define DC_TELL_SANITIZER(event) __tsan_mutex_##event
#else
#define DC_TELL_SANITIZER(event) static_cast<void>(0)
#endif
