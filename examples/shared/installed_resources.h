// SPDX-License-Identifier: Apache-2.0
// Resources of the example programs in a build tree and in an installed tree.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tarnwick/platform.h"

// Where an installed program keeps the library's tables, relative to the program's directory (or
// absolute); the build passes the installed layout's value.
#ifndef TW_TOOL_DATA_DIR
#define TW_TOOL_DATA_DIR "../share/tarnwick"
#endif

namespace examples {

// The library looks for resources beside argv[0], which misses when a program was started through
// PATH, and in an installed tree where the tables live in the data directory. This getter,
// asked after that, tries the directory of the running executable and the data directory.
inline int GetInstalledResource(const char* name, uint32_t* size_out, void** data_out) {
  if (name == nullptr || std::strchr(name, '/') != nullptr) return 0;
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return 0;
  const std::filesystem::path dir = self.parent_path();
  for (const std::filesystem::path& path :
       {dir / "resources" / name, dir / TW_TOOL_DATA_DIR / name}) {
    if (!std::filesystem::is_regular_file(path, error)) continue;
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    if (!file.good() && !file.eof()) continue;
    if (bytes.size() > UINT32_MAX - 2u) return 0;
    // Like a block the library reads itself: two zero bytes behind the data.
    auto* block = static_cast<char*>(upnp_malloc_impl(bytes.size() + 2));
    if (block == nullptr) return 0;
    std::memcpy(block, bytes.data(), bytes.size());
    block[bytes.size()] = '\0';
    block[bytes.size() + 1] = '\0';
    *size_out = static_cast<uint32_t>(bytes.size());
    *data_out = block;
    return 1;
  }
  return 0;
}

}  // namespace examples
