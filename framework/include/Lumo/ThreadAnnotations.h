#pragma once

// Clang's thread-safety attributes; other compilers see nothing. A breach is an error in the clang
// build.
#if defined(__clang__)
#define LUMO_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define LUMO_THREAD_ATTRIBUTE(x)
#endif

#define LUMO_CAPABILITY(name) LUMO_THREAD_ATTRIBUTE(capability(name))
#define LUMO_SCOPED_CAPABILITY LUMO_THREAD_ATTRIBUTE(scoped_lockable)
#define LUMO_GUARDED_BY(lock) LUMO_THREAD_ATTRIBUTE(guarded_by(lock))
#define LUMO_ACQUIRE(...) LUMO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define LUMO_RELEASE(...) LUMO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define LUMO_REQUIRES(...) LUMO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define LUMO_NO_THREAD_SAFETY_ANALYSIS LUMO_THREAD_ATTRIBUTE(no_thread_safety_analysis)
