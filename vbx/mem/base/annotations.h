// Names for clang's thread-safety analysis; under other compilers they are empty.
#pragma once

#if defined(__clang__)
#define MEM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define MEM_THREAD_ANNOTATION(x)
#endif

#define MEM_CAPABILITY(name) MEM_THREAD_ANNOTATION(capability(name))
#define MEM_SCOPED_CAPABILITY MEM_THREAD_ANNOTATION(scoped_lockable)
#define MEM_GUARDED_BY(lock) MEM_THREAD_ANNOTATION(guarded_by(lock))
#define MEM_PT_GUARDED_BY(lock) MEM_THREAD_ANNOTATION(pt_guarded_by(lock))
#define MEM_REQUIRES(...) MEM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define MEM_REQUIRES_SHARED(...) MEM_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define MEM_ACQUIRE(...) MEM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define MEM_ACQUIRE_SHARED(...) MEM_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define MEM_TRY_ACQUIRE(...) MEM_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define MEM_RELEASE(...) MEM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define MEM_RELEASE_GENERIC(...) MEM_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define MEM_EXCLUDES(...) MEM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define MEM_NO_THREAD_SAFETY_ANALYSIS MEM_THREAD_ANNOTATION(no_thread_safety_analysis)
