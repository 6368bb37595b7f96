// Lock annotations for clang's thread safety analysis (-Wthread-safety): which lock guards a
// member, which lock a method needs its caller to hold. Other compilers see nothing.
#ifndef ZOVDX_UTILS_THREAD_ANNOTATIONS_H_
#define ZOVDX_UTILS_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define ZOVDX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZOVDX_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) ZOVDX_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY ZOVDX_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) ZOVDX_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) ZOVDX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) ZOVDX_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) ZOVDX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) ZOVDX_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) ZOVDX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) ZOVDX_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) ZOVDX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

#endif  // ZOVDX_UTILS_THREAD_ANNOTATIONS_H_
