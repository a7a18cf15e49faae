// SPDX-License-Identifier: Apache-2.0
// Start and end of the client database: the lock, the client-type resource and the stored table.
#include "clientdb/clientdb.h"
#include "clientdb/records.h"
#include "tarnwick/config.h"
#include "tarnwick/core.h"
#include "tarnwick/platform.h"

namespace tw::clientdb {
namespace {

// upnp_resource_get cuts the name in place at its last '?', so it gets a buffer of its own.
char g_resource_name[] = "clients.db";

}  // namespace

void Init() noexcept {
  CreateLock();
  if (upnp_ini_file_getBoolean(UPNP_INI_KEY_CLEARCLIENTSONRESTART) != 0) ResetClients();
  uint32_t size = 0;
  void* data = nullptr;
  upnp_resource_get(g_resource_name, &size, &data);
  // The last byte becomes the terminator: a cached copy carries none of its own. A resource
  // that ends in ">>" without a line feed therefore loses its last mark, and its last entry.
  char* text = static_cast<char*>(data);
  if (text != nullptr && size > 0) {
    text[size - 1] = '\0';
    LoadTypes(text);
  } else {
    LoadTypes(nullptr);
  }
  if (data != nullptr) upnp_free_impl(data);
  InitClientTable();
}

// Intended: the lists are dropped, not freed; at start they are empty, and a host that starts
// twice without an exit loses the old records rather than having them freed under its feet.
void InitClientTable() noexcept {
  {
    Guard guard;
    if (guard.held()) ForgetListsLocked();
  }
  ReadTable();
}

void Exit() noexcept {
  {
    Guard guard;
    if (guard.held()) {
      FreeClientsLocked();
      FreeUdnsLocked();
    }
  }
  FreeTypes();
  FreeMimeTable();
  FreeViews();
  DestroyLock();
}

}  // namespace tw::clientdb
