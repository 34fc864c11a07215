#ifndef VIDORA_OSTRA_THREADANNOTATIONS_H
#define VIDORA_OSTRA_THREADANNOTATIONS_H

// Clang's thread-safety attributes (-Wthread-safety); empty for other compilers.
#if defined(__clang__)
#define VIDORA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VIDORA_THREAD_ATTRIBUTE(x)
#endif

#define VIDORA_CAPABILITY(name) VIDORA_THREAD_ATTRIBUTE(capability(name))
#define VIDORA_SCOPED_CAPABILITY VIDORA_THREAD_ATTRIBUTE(scoped_lockable)
#define VIDORA_GUARDED_BY(x) VIDORA_THREAD_ATTRIBUTE(guarded_by(x))
#define VIDORA_PT_GUARDED_BY(x) VIDORA_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define VIDORA_REQUIRES(...) VIDORA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VIDORA_EXCLUDES(...) VIDORA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define VIDORA_ACQUIRE(...) VIDORA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VIDORA_RELEASE(...) VIDORA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VIDORA_NO_THREAD_SAFETY_ANALYSIS VIDORA_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // VIDORA_OSTRA_THREADANNOTATIONS_H
