// SPDX-License-Identifier: Apache-2.0
// RAII access to critical sections.
//
// Lock order (take them in this order only, never the reverse):
//   global -> configuration -> client database -> SSDP answer queue -> log -> memory
// Memory is a leaf: nothing is called while it is held. Internal code enters a section once per
// call path through CsGuard; a re-entry is legal but logs a problem line, and re-entering the log's
// own section would log under it, so never do that.
#pragma once

#include "tarnwick/platform.h"

namespace tw {

class CsGuard {
 public:
  explicit CsGuard(CRITICAL_SECTION* cs) noexcept : cs_(cs) { EnterCriticalSection(cs_); }
  ~CsGuard() { LeaveCriticalSection(cs_); }
  CsGuard(const CsGuard&) = delete;
  CsGuard& operator=(const CsGuard&) = delete;

 private:
  CRITICAL_SECTION* cs_;
};

}  // namespace tw
