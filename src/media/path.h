// SPDX-License-Identifier: Apache-2.0
// Path texts and directory helpers of the file layer. Paths may use "/" or "\\" as separators.
#pragma once

#include <string_view>

namespace tw::media {

inline bool IsSeparator(char c) { return c == '/' || c == '\\'; }

// Fresh accounted strings (free with upnp_free_impl); null when memory is short.
char* FullPath(std::string_view path) noexcept;
// Both texts non-empty (the entry checks that).
char* BuildPath(std::string_view dir, std::string_view name) noexcept;
// Outputs may be null; each one that is set receives a fresh string or stays null. Returns false
// when memory ran short (nothing is handed out then).
bool SplitPath(std::string_view path, char** dir, char** name) noexcept;

bool Exists(const char* path) noexcept;
bool IsRegularFile(const char* path) noexcept;

void EmptyDir(const char* dir) noexcept;
// Removes everything below dir and, unless keep_top, dir itself.
void RemoveTree(const char* dir, bool keep_top) noexcept;
// Removal of a copy of dir on a detached thread.
void RemoveTreeInBackground(const char* dir) noexcept;

}  // namespace tw::media
