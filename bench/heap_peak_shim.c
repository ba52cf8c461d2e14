/* Heap accounting for measurements, loaded with LD_PRELOAD: wraps glibc's
 * allocation functions and tracks the bytes in use (as malloc_usable_size
 * reports them, so allocator rounding counts) and their peak. A driver finds
 * the exported functions with dlsym(RTLD_DEFAULT, ...); without the shim they
 * are simply absent. On exit the process-wide peak goes to stderr when
 * LKDH_HEAP_REPORT is set. */
#define _GNU_SOURCE
#include <errno.h>
#include <malloc.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

extern void* __libc_malloc(size_t size);
extern void __libc_free(void* pointer);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* pointer, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);
extern void* __libc_valloc(size_t size);
extern void* __libc_pvalloc(size_t size);

static atomic_size_t s_current;
static atomic_size_t s_peak;    /* since the last reset */
static atomic_size_t s_maximum; /* since start */

static void Raise(atomic_size_t* peak, size_t value) {
  size_t seen = atomic_load_explicit(peak, memory_order_relaxed);
  while (value > seen && !atomic_compare_exchange_weak_explicit(
                             peak, &seen, value, memory_order_relaxed, memory_order_relaxed)) {
  }
}

static void* Added(void* pointer) {
  if (pointer != NULL) {
    const size_t now =
        atomic_fetch_add_explicit(&s_current, malloc_usable_size(pointer), memory_order_relaxed) +
        malloc_usable_size(pointer);
    Raise(&s_peak, now);
    Raise(&s_maximum, now);
  }
  return pointer;
}

static void Removed(void* pointer) {
  if (pointer != NULL) {
    atomic_fetch_sub_explicit(&s_current, malloc_usable_size(pointer), memory_order_relaxed);
  }
}

void* malloc(size_t size) { return Added(__libc_malloc(size)); }

void free(void* pointer) {
  Removed(pointer);
  __libc_free(pointer);
}

void* calloc(size_t count, size_t size) { return Added(__libc_calloc(count, size)); }

void* realloc(void* pointer, size_t size) {
  /* Counted as free then malloc; a failed realloc leaves the old block in use. */
  const size_t before = pointer != NULL ? malloc_usable_size(pointer) : 0;
  void* result = __libc_realloc(pointer, size);
  if (result == NULL && size != 0) return NULL;
  atomic_fetch_sub_explicit(&s_current, before, memory_order_relaxed);
  return Added(result);
}

void* memalign(size_t alignment, size_t size) { return Added(__libc_memalign(alignment, size)); }

void* aligned_alloc(size_t alignment, size_t size) {
  return Added(__libc_memalign(alignment, size));
}

int posix_memalign(void** result, size_t alignment, size_t size) {
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  void* pointer = __libc_memalign(alignment, size);
  if (pointer == NULL) return ENOMEM;
  *result = Added(pointer);
  return 0;
}

void* valloc(size_t size) { return Added(__libc_valloc(size)); }

void* pvalloc(size_t size) { return Added(__libc_pvalloc(size)); }

/* The driver's interface. */
size_t lkdh_heap_current(void) { return atomic_load(&s_current); }

size_t lkdh_heap_peak(void) { return atomic_load(&s_peak); }

size_t lkdh_heap_maximum(void) { return atomic_load(&s_maximum); }

void lkdh_heap_reset_peak(void) { atomic_store(&s_peak, atomic_load(&s_current)); }

__attribute__((destructor)) static void Report(void) {
  if (getenv("LKDH_HEAP_REPORT") != NULL) {
    fprintf(stderr, "lkdh-heap: maximum %zu bytes, in use at exit %zu bytes\n",
            atomic_load(&s_maximum), atomic_load(&s_current));
  }
}
