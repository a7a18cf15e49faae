// SPDX-License-Identifier: Apache-2.0
// Internals of the child-process wrappers, visible to the unit tests.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace tw::platform {

// Splits text IN PLACE into blank-separated tokens ("double quotes" group a token, no escapes)
// and stores their starts in argv[used], argv[used + 1], ... while fewer than `capacity` slots
// are in use; further tokens are scanned and dropped. A null text adds nothing. Returns the
// number of slots in use afterwards.
int SplitParams(char* text, char** argv, int used, int capacity) noexcept;

// The background-process table, for tests: number of entries and the i-th process id.
int ActiveProcessCount() noexcept;
pid_t ActiveProcessId(int index) noexcept;

}  // namespace tw::platform
