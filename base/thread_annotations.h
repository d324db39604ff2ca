// SPDX-License-Identifier: Apache-2.0
//
// Names for clang's thread-safety analysis; other compilers see nothing.
#pragma once

#if defined(__clang__)
#define THMP_ANNOTATION(x) __attribute__((x))
#else
#define THMP_ANNOTATION(x)
#endif

#define THMP_CAPABILITY(name) THMP_ANNOTATION(capability(name))
#define THMP_SCOPED_CAPABILITY THMP_ANNOTATION(scoped_lockable)
#define THMP_GUARDED_BY(lock) THMP_ANNOTATION(guarded_by(lock))
#define THMP_REQUIRES(...) THMP_ANNOTATION(requires_capability(__VA_ARGS__))
#define THMP_EXCLUDES(...) THMP_ANNOTATION(locks_excluded(__VA_ARGS__))
#define THMP_ACQUIRE(...) THMP_ANNOTATION(acquire_capability(__VA_ARGS__))
#define THMP_ACQUIRE_SHARED(...) THMP_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define THMP_RELEASE_SHARED(...) THMP_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define THMP_RELEASE_GENERIC(...) THMP_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define THMP_RELEASE(...) THMP_ANNOTATION(release_capability(__VA_ARGS__))
#define THMP_NO_THREAD_SAFETY_ANALYSIS THMP_ANNOTATION(no_thread_safety_analysis)
