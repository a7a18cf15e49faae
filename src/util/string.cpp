// SPDX-License-Identifier: Apache-2.0
#include "util/string.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/log_hook.h"
#include "tarnwick/platform.h"
#include "util/char_class.h"
#include "util/encoding.h"

namespace tw::util {
namespace {

// vsprintf's scratch starts at twice this; the doubling happens before the first try.
constexpr std::size_t kScratchStart = 2048;
// vsnprintf cannot report more than INT_MAX bytes, so a larger scratch can never help: treat
// reaching it like an allocation failure instead of asking for gigabytes.
constexpr std::size_t kScratchLimit = std::size_t{1} << 30;

// Replaces the buffer by one of new_capacity bytes holding the old text. The block is moved by
// hand rather than with realloc: when memory is short the old text must be released (the record
// then has a null buffer, the documented sign of a lost string) without leaking the block or
// unbalancing the accounting, which a failed upnp_realloc_impl would do.
bool Reallocate(upnp_string* s, uint64_t new_capacity) noexcept {
  char* fresh = nullptr;
  if (new_capacity <= UINT32_MAX) {
    fresh = static_cast<char*>(upnp_malloc_impl(static_cast<std::size_t>(new_capacity)));
  }
  if (fresh != nullptr && s->length > 0) std::memcpy(fresh, s->buffer, s->length);
  upnp_free_impl(s->buffer);
  s->buffer = fresh;
  s->capacity = static_cast<uint32_t>(std::min<uint64_t>(new_capacity, UINT32_MAX));
  return fresh != nullptr;
}

// Appends n bytes and the terminating NUL by the shared growth rule: in place while
// length + n + 1 fits, otherwise at least doubling, or exactly enough for one large append.
// A lost buffer still advances length, as callers of this string type expect.
void AppendBytes(upnp_string* s, const char* bytes, std::size_t n) noexcept {
  const uint64_t need = uint64_t{s->length} + n + 1;
  if (need > UINT32_MAX) {
    Reallocate(s, need);  // cannot be represented: treated as an allocation failure
    return;
  }
  if (need > s->capacity) {
    // Doubling past the 32-bit range settles for the largest size the record can describe.
    const uint64_t doubled = std::min<uint64_t>(uint64_t{s->capacity} * 2, UINT32_MAX);
    Reallocate(s, std::max(need, doubled));
  }
  const uint32_t old_length = s->length;
  s->length = static_cast<uint32_t>(need - 1);
  if (s->buffer == nullptr) return;
  std::memcpy(s->buffer + old_length, bytes, n);
  s->buffer[s->length] = '\0';
}

// Set while this thread logs a formatting failure: the log may format through this very code,
// and when memory is really gone that must not recurse.
thread_local bool t_reporting_oom = false;

void ReportOutOfMemory(const char* format) noexcept {
  if (t_reporting_oom) return;
  t_reporting_oom = true;
  tw::platform::Log(UPNP_LOG_LEVEL_ERROR, UPNP_LOG_SYSTEM,
                    "upnp_string_vsprintf - out of memory %s", format);
  t_reporting_oom = false;
}

}  // namespace

upnp_string* StringCreate(const char* init, uint32_t capacity) noexcept {
  auto* s = static_cast<upnp_string*>(upnp_malloc_impl(sizeof(upnp_string)));
  if (s == nullptr) return nullptr;
  s->buffer = static_cast<char*>(upnp_calloc_impl(1, capacity));
  if (s->buffer == nullptr) {
    upnp_free_impl(s);
    return nullptr;
  }
  s->length = 0;
  s->capacity = capacity;
  // The room test is done in 64 bits, so a capacity of 0 simply grows on the first byte
  // instead of letting "capacity - 1" wrap.
  return StringConcat(s, init);
}

void StringFree(upnp_string* s) noexcept {
  if (s == nullptr) return;
  if (s->buffer != nullptr) upnp_free_impl(s->buffer);
  upnp_free_impl(s);
}

upnp_string* StringConcat(upnp_string* s, const char* cstr) noexcept {
  if (s == nullptr) {
    const std::size_t n = cstr != nullptr ? std::strlen(cstr) : 0;
    if (n > UINT32_MAX - kFirstAppendSlack) return nullptr;
    return StringCreate(cstr, static_cast<uint32_t>(n + kFirstAppendSlack));
  }
  // A record that lost its buffer is outside the contract; leave it alone rather than write.
  if (cstr == nullptr || cstr[0] == '\0' || s->buffer == nullptr) return s;
  AppendBytes(s, cstr, std::strlen(cstr));
  return s;
}

upnp_string* StringAdd(upnp_string* s, const void* bytes, uint32_t count) noexcept {
  if (s == nullptr) {
    if (count > UINT32_MAX - kFirstAppendSlack) return nullptr;
    s = StringCreate("", count + kFirstAppendSlack);
    if (s == nullptr) return nullptr;
  }
  if (count == 0 || bytes == nullptr || s->buffer == nullptr) return s;
  AppendBytes(s, static_cast<const char*>(bytes), count);
  return s;
}

upnp_string* StringConcatConverted(upnp_string* s, const char* cstr, bool to_utf8) noexcept {
  char* converted = to_utf8 ? ToUtf8(cstr) : FromUtf8(cstr);
  if (converted == nullptr) return s;
  if (s == nullptr) {
    // A fixed capacity here, not length + slack as the other creating appends use: the record's
    // capacity is visible to callers, and later growth starts from it. Pinned by
    // UtilString.GrowthRules ("256:...").
    upnp_string* created = StringCreate(converted, kFirstAppendSlack);
    upnp_free_impl(converted);
    return created;
  }
  if (s->buffer == nullptr) {
    upnp_free_impl(converted);
    return s;
  }
  const uint64_t n = std::strlen(converted);
  const uint64_t length = s->length;
  const uint64_t capacity = s->capacity;
  // Reserves for twice the converted length, since converted text tends to expand.
  // The asymmetry is intended and kept: the fallback is chosen by comparing doubling against
  // length + n + 1, but the size it then takes is length + 2n + 1.
  if (length + 2 * n + 1 > capacity) {
    uint64_t new_capacity = 2 * capacity;
    if (new_capacity < length + n + 1) new_capacity = length + 2 * n + 1;
    if (new_capacity > UINT32_MAX) new_capacity = std::max<uint64_t>(length + n + 1, UINT32_MAX);
    Reallocate(s, new_capacity);
  }
  if (length + n <= UINT32_MAX) {
    s->length = static_cast<uint32_t>(length + n);
    if (s->buffer != nullptr) std::memcpy(s->buffer + length, converted, n + 1);
  }
  upnp_free_impl(converted);
  return s;
}

upnp_string* StringVFormat(const char* format, va_list args) noexcept {
  if (format == nullptr) return nullptr;
  std::size_t size = kScratchStart;
  for (;;) {
    size *= 2;
    char* scratch = nullptr;
    if (size <= kScratchLimit) scratch = static_cast<char*>(upnp_malloc_impl(size));
    if (scratch == nullptr) {
      ReportOutOfMemory(format);
      return nullptr;
    }
    // Each try formats from a fresh copy: a va_list may be consumed by the first attempt.
    va_list attempt;
    va_copy(attempt, args);
    const int written = std::vsnprintf(scratch, size, format, attempt);
    va_end(attempt);
    if (written >= 0 && static_cast<std::size_t>(written) < size) {
      upnp_string* s = StringConcat(nullptr, scratch);
      upnp_free_impl(scratch);
      if (s == nullptr) ReportOutOfMemory(format);
      return s;
    }
    upnp_free_impl(scratch);
  }
}

upnp_string* StringFormat(const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  upnp_string* text = StringVFormat(format, args);
  va_end(args);
  return text;
}

upnp_string* StringCut(upnp_string* s, uint32_t n) noexcept {
  if (s == nullptr || s->buffer == nullptr) return s;
  if (s->length > n) {
    s->length -= n;
  } else {
    s->length = 0;
  }
  s->buffer[s->length] = '\0';
  return s;
}

upnp_string* StringShiftLeft(upnp_string* s, uint32_t n) noexcept {
  if (s == nullptr || s->buffer == nullptr || n == 0 || s->length == 0) return s;
  if (s->length > n) {
    std::memmove(s->buffer, s->buffer + n, s->length - n + 1);
    s->length -= n;
  } else {
    s->length = 0;
    s->buffer[0] = '\0';
  }
  return s;
}

char* ReplaceOrCopy(const char* haystack, const char* needle, const char* replacement,
                    bool copy) noexcept {
  const char* hit = nullptr;
  if (haystack != nullptr && haystack[0] != '\0' && needle != nullptr && needle[0] != '\0') {
    hit = std::strstr(haystack, needle);
  }
  if (hit == nullptr) {
    if (copy && haystack != nullptr) return upnp_strdup_impl(haystack);
    // Without copy the caller gets its own text back and must not free it twice.
    return const_cast<char*>(haystack);
  }
  const std::size_t haystack_len = std::strlen(haystack);
  const std::size_t needle_len = std::strlen(needle);
  const std::size_t replacement_len = replacement != nullptr ? std::strlen(replacement) : 0;
  // Room for the text (and its NUL) plus five growths by the replacement, so that typical
  // edits never reallocate.
  uint64_t capacity = uint64_t{haystack_len} + 1;
  if (replacement_len > needle_len) capacity += 5 * uint64_t{replacement_len - needle_len};
  if (capacity > UINT32_MAX) return nullptr;
  upnp_string* work = StringCreate(nullptr, static_cast<uint32_t>(capacity));
  if (work == nullptr) return nullptr;
  const char* rest = haystack;
  while (hit != nullptr && work->buffer != nullptr) {
    work = StringAdd(work, rest, static_cast<uint32_t>(hit - rest));
    work = StringAdd(work, replacement, static_cast<uint32_t>(replacement_len));
    rest = hit + needle_len;
    hit = std::strstr(rest, needle);
  }
  work = StringConcat(work, rest);
  char* result = work->buffer != nullptr ? upnp_strdup_impl(work->buffer) : nullptr;
  StringFree(work);
  return result;
}

upnp_string* StringReplace(upnp_string* s, const char* needle, const char* replacement) noexcept {
  if (s == nullptr || s->buffer == nullptr) return nullptr;
  // Deliberate: a missing needle or replacement consumes the record. Callers that store the
  // result back would otherwise leak it; an empty replacement is the way to delete.
  if (needle == nullptr || replacement == nullptr) {
    StringFree(s);
    return nullptr;
  }
  char* replaced = ReplaceOrCopy(s->buffer, needle, replacement, true);
  StringFree(s);
  if (replaced == nullptr) return nullptr;
  upnp_string* result = StringConcat(nullptr, replaced);
  upnp_free_impl(replaced);
  return result;
}

char* Append(const char* a, const char* b) noexcept {
  if (a == nullptr || a[0] == '\0') return b != nullptr ? upnp_strdup_impl(b) : nullptr;
  if (b == nullptr || b[0] == '\0') return upnp_strdup_impl(a);
  const std::size_t a_len = std::strlen(a);
  const std::size_t b_len = std::strlen(b);
  char* joined = static_cast<char*>(upnp_malloc_impl(a_len + b_len + 1));
  if (joined == nullptr) return nullptr;
  std::memcpy(joined, a, a_len);
  std::memcpy(joined + a_len, b, b_len + 1);
  return joined;
}

bool StartsWithNoCase(const char* str, const char* prefix) noexcept {
  if (str == nullptr || prefix == nullptr) return false;
  // A shorter str meets its NUL against a non-NUL prefix byte and stops there.
  for (std::size_t i = 0; prefix[i] != '\0'; ++i) {
    if (FoldByte(str[i]) != FoldByte(prefix[i])) return false;
  }
  return true;
}

bool EndsWithNoCase(const char* str, const char* suffix) noexcept {
  if (str == nullptr || suffix == nullptr || str[0] == '\0' || suffix[0] == '\0') return false;
  const std::size_t str_len = std::strlen(str);
  const std::size_t suffix_len = std::strlen(suffix);
  if (suffix_len > str_len) return false;
  const char* tail = str + (str_len - suffix_len);
  for (std::size_t i = 0; i < suffix_len; ++i) {
    if (FoldByte(tail[i]) != FoldByte(suffix[i])) return false;
  }
  return true;
}

namespace {

// Needles up to this length are searched by candidates: the library's own needles (header names
// in a request head) are all short, and the head is searched a dozen times per request.
constexpr int32_t kShortNeedle = 32;

// The byte-wise scan behind short needles: the string library jumps to each byte that can start
// a match (either case of the needle's first byte) and only those are compared. Worst case
// n * kShortNeedle steps, so a hostile head cannot make it quadratic.
const char* IStrStrShort(const char* haystack, const char* needle, int32_t m) noexcept {
  const int first = FoldByte(needle[0]);
  const char starts[3] = {static_cast<char>(first), static_cast<char>(ascii::ToUpper(first)), 0};
  for (const char* at = haystack;; ++at) {
    at += std::strcspn(at, starts);
    if (*at == '\0') return nullptr;
    int32_t i = 1;
    // A NUL in the haystack never equals a needle byte, so the comparison stops at its end.
    while (i < m && FoldByte(at[i]) == FoldByte(needle[i])) ++i;
    if (i == m) return at;
  }
}

}  // namespace

// Short needles: candidate scan (above). Longer ones: Knuth-Morris-Pratt over case-folded
// bytes, linear whatever the input. The failure table is on the stack so that the search never
// allocates, which is why needles are limited to kMaxIStrStrNeedle bytes.
const char* IStrStr(const char* haystack, const char* needle) noexcept {
  if (haystack == nullptr || needle == nullptr || haystack[0] == '\0' || needle[0] == '\0') {
    return nullptr;
  }
  int32_t m = 0;
  while (needle[m] != '\0') {
    if (++m > static_cast<int32_t>(kMaxIStrStrNeedle)) return nullptr;
  }
  if (m <= kShortNeedle) return IStrStrShort(haystack, needle, m);
  int32_t next[kMaxIStrStrNeedle];
  next[0] = -1;
  int32_t k = -1;
  for (int32_t i = 1; i < m; ++i) {
    while (k >= 0 && FoldByte(needle[i - 1]) != FoldByte(needle[k])) k = next[k];
    ++k;
    // The optimised table: falling back to a position holding the same byte is pointless.
    next[i] = FoldByte(needle[i]) != FoldByte(needle[k]) ? k : next[k];
  }
  const std::size_t n = std::strlen(haystack);
  int32_t i = 0;
  std::size_t j = 0;
  const int first = FoldByte(needle[0]);
  while (i < m) {
    if (i == 0) {
      // At the needle's start a mismatch only advances j (next[0] is -1): skip such bytes in a
      // tight loop, which is where a search over a long head spends its time.
      while (j < n && FoldByte(haystack[j]) != first) ++j;
    }
    if (j >= n) return nullptr;
    while (i >= 0 && FoldByte(needle[i]) != FoldByte(haystack[j])) i = next[i];
    ++i;
    ++j;
  }
  return haystack + (j - static_cast<std::size_t>(i));
}

int32_t FindSeparator(const char* str, const char* separators) noexcept {
  if (str == nullptr || separators == nullptr) return -1;
  int32_t i = 0;
  for (; str[i] != '\0'; ++i) {
    if (std::strchr(separators, str[i]) != nullptr) return i;
  }
  return i;
}

char* StripTrailingWhiteSpace(char* str) noexcept {
  if (str == nullptr) return nullptr;
  std::size_t n = std::strlen(str);
  while (n > 0 && IsWhiteSpace(static_cast<unsigned char>(str[n - 1]))) str[--n] = '\0';
  return str;
}

}  // namespace tw::util
