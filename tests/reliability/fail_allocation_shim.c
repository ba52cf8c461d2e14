/* LD_PRELOAD shim for tests: makes chosen heap allocations of a process fail.
 * LKDH_FAIL_ALLOCATION="N" fails the N-th call (1-based, counted from the
 * process start) of malloc, calloc, realloc, posix_memalign, aligned_alloc,
 * memalign and valloc; "N+K" fails K calls from the N-th on. C++ operator new
 * comes through malloc. When a call is failed and LKDH_FAIL_ALLOCATION_MARK
 * names a file, that file is created, so that a test knows the process got as
 * far as the N-th allocation. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <unistd.h>

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* block, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);
extern void __libc_free(void* block);

static int g_configured;
static unsigned long long g_first; /* 0: nothing fails */
static unsigned long long g_run = 1;
static unsigned long long g_count;
static const char* g_mark;

static unsigned long long ParseNumber(const char** text) {
  unsigned long long value = 0;
  while (**text >= '0' && **text <= '9') {
    value = value * 10 + (unsigned long long)(**text - '0');
    ++*text;
  }
  return value;
}

/* getenv does not allocate, so this may run inside the first malloc. */
static void Configure(void) {
  const char* text = getenv("LKDH_FAIL_ALLOCATION");
  if (text != NULL) {
    g_first = ParseNumber(&text);
    if (*text == '+') {
      ++text;
      g_run = ParseNumber(&text);
    }
  }
  g_mark = getenv("LKDH_FAIL_ALLOCATION_MARK");
  g_configured = 1;
}

static int ShouldFail(void) {
  if (!g_configured) Configure();
  if (g_first == 0) return 0;
  const unsigned long long number = __atomic_add_fetch(&g_count, 1, __ATOMIC_RELAXED);
  if (number < g_first || number - g_first >= g_run) return 0;
  if (g_mark != NULL) {
    const int fd = open(g_mark, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) close(fd);
  }
  errno = ENOMEM;
  return 1;
}

void* malloc(size_t size) { return ShouldFail() ? NULL : __libc_malloc(size); }

void* calloc(size_t count, size_t size) { return ShouldFail() ? NULL : __libc_calloc(count, size); }

void* realloc(void* block, size_t size) {
  /* Giving memory back never fails. */
  if (block != NULL && size == 0) return __libc_realloc(block, size);
  return ShouldFail() ? NULL : __libc_realloc(block, size);
}

void free(void* block) { __libc_free(block); }

int posix_memalign(void** block, size_t alignment, size_t size) {
  if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) return EINVAL;
  if (ShouldFail()) return ENOMEM;
  void* result = __libc_memalign(alignment, size);
  if (result == NULL) return ENOMEM;
  *block = result;
  return 0;
}

void* aligned_alloc(size_t alignment, size_t size) {
  return ShouldFail() ? NULL : __libc_memalign(alignment, size);
}

void* memalign(size_t alignment, size_t size) {
  return ShouldFail() ? NULL : __libc_memalign(alignment, size);
}

void* valloc(size_t size) {
  return ShouldFail() ? NULL : __libc_memalign((size_t)sysconf(_SC_PAGESIZE), size);
}
