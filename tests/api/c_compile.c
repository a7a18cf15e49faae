/* SPDX-License-Identifier: Apache-2.0 */
/* A C99 host that knows the SDK only through the umbrella header and the shared library. Built
 * against the build tree (ApiC.CompilesAndRuns) and, by scripts/check_install.sh, against an
 * installed prefix through find_package(TarnwickUpnp) and through pkg-config: proves that the
 * public headers are valid C and that the C ABI links, loads and runs. */
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

int main(int argc, char** argv) {
  const char* how = argc > 1 ? argv[1] : "c99 api";
  uint32_t before;
  char* copy;
  upnp_string* s;
  CRITICAL_SECTION cs;

  upnp_mem_init();
  before = upnp_mem_used();
  copy = upnp_strdup_impl("tarnwick");
  CHECK(copy != NULL && strcmp(copy, "tarnwick") == 0);
  CHECK(upnp_mem_used() == before + 9);
  upnp_free_impl(copy);
  CHECK(upnp_mem_used() == before);

  s = upnp_string_create("tarnwick", 32); /* the dynamic string through its public record */
  CHECK(s != NULL && s->length == 8 && s->capacity == 32);
  s = upnp_string_concat(s, "-upnp");
  CHECK(s != NULL && strcmp(upnp_string_get_cstring(s), "tarnwick-upnp") == 0);
  upnp_string_free(s);
  CHECK(upnp_mem_used() == before);

  InitializeCriticalSection(&cs);
  EnterCriticalSection(&cs);
  LeaveCriticalSection(&cs);
  DeleteCriticalSection(&cs);

  CHECK(upnp_log_init(NULL) == 1);
  upnp_log_exit();

  /* The error table through its public record: a host row wins, an unknown code reports 400. */
  {
    static const upnp_errmsg host_errors[] = {{701, "gone"}, {-1, NULL}};
    upnp_set_errmsgs(host_errors);
    CHECK(strcmp(upnp_get_errmsg(701), "gone") == 0);
    CHECK(strcmp(upnp_get_errmsg(999), "Bad request") == 0);
    upnp_set_errmsgs(NULL);
  }

  if (failures == 0) printf("%s: ok\n", how);
  return failures == 0 ? 0 : 1;
}
