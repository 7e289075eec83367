// Names for clang's thread-safety analysis; they say nothing to other compilers.
#ifndef MIVO_BASE_THREAD_ANNOTATIONS_H_
#define MIVO_BASE_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define MIVO_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define MIVO_THREAD_ATTRIBUTE(x)
#endif

#define MIVO_CAPABILITY(name) MIVO_THREAD_ATTRIBUTE(capability(name))
#define MIVO_SCOPED_CAPABILITY MIVO_THREAD_ATTRIBUTE(scoped_lockable)
#define MIVO_GUARDED_BY(x) MIVO_THREAD_ATTRIBUTE(guarded_by(x))
#define MIVO_PT_GUARDED_BY(x) MIVO_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define MIVO_REQUIRES(...) MIVO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define MIVO_EXCLUDES(...) MIVO_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define MIVO_ACQUIRE(...) MIVO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define MIVO_RELEASE(...) MIVO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define MIVO_NO_THREAD_SAFETY_ANALYSIS MIVO_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // MIVO_BASE_THREAD_ANNOTATIONS_H_
