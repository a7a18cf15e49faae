/* SPDX-License-Identifier: Apache-2.0 */
/* A downstream C99 program that knows the SDK only through its installed files: built by
 * scripts/check_install.sh once through find_package(TarnwickUpnp) and once through pkg-config,
 * against a temporary install prefix. A missing header, a wrong include or library path, or a
 * library that does not load makes the build or this program fail. */
#include <stdio.h>
#include <string.h>
#include <tarnwick/upnp.h>

static int failures = 0;

#define CHECK(cond)                                              \
  do {                                                           \
    if (!(cond)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                \
    }                                                            \
  } while (0)

int main(int argc, char** argv) {
  const char* how = argc > 1 ? argv[1] : "consumer";
  uint32_t before;
  unsigned char* block;
  upnp_string* s;

  upnp_mem_init();
  before = upnp_mem_used();

  /* The accounted allocator counts payload bytes and gives every one of them back. */
  block = (unsigned char*)upnp_malloc_impl(100);
  CHECK(block != NULL);
  if (block != NULL) {
    memset(block, 0xA5, 100);
    CHECK(upnp_mem_used() == before + 100);
    upnp_free_impl(block);
  }
  CHECK(upnp_mem_used() == before);

  /* The dynamic string through its public record. */
  s = upnp_string_create("tarnwick", 32);
  CHECK(s != NULL);
  if (s != NULL) {
    CHECK(s->length == 8 && s->capacity == 32);
    s = upnp_string_concat(s, "-upnp");
    CHECK(s != NULL && upnp_string_get_cstring(s) != NULL &&
          strcmp(upnp_string_get_cstring(s), "tarnwick-upnp") == 0);
    CHECK(upnp_mem_used() > before);
    upnp_string_free(s);
  }
  CHECK(upnp_mem_used() == before);

  if (failures != 0) {
    fprintf(stderr, "%s: %d check(s) failed\n", how, failures);
    return 1;
  }
  printf("%s: ok\n", how);
  return 0;
}
