/* SPDX-License-Identifier: Apache-2.0 */
/* Built as C99 against the shared library and the umbrella header only: proves that the public
 * headers are valid C and that the C ABI links and runs from a C host. */
#include <stdio.h>
#include <string.h>

#include "tarnwick/upnp.h"

static int failures = 0;

#define CHECK(cond)                                              \
  do {                                                           \
    if (!(cond)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                \
    }                                                            \
  } while (0)

int main(void) {
  uint32_t before;
  char* copy;
  CRITICAL_SECTION cs;

  upnp_mem_init();
  before = upnp_mem_used();
  copy = upnp_strdup_impl("tarnwick");
  CHECK(copy != NULL && strcmp(copy, "tarnwick") == 0);
  CHECK(upnp_mem_used() == before + 9);
  upnp_free_impl(copy);
  CHECK(upnp_mem_used() == before);

  InitializeCriticalSection(&cs);
  EnterCriticalSection(&cs);
  LeaveCriticalSection(&cs);
  DeleteCriticalSection(&cs);

  CHECK(upnp_log_init(NULL) == 1);
  upnp_log_exit();

  if (failures == 0) printf("c99 api: ok\n");
  return failures == 0 ? 0 : 1;
}
