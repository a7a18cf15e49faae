// SPDX-License-Identifier: Apache-2.0
// Text throughput against the obvious standard references, measured in the same run:
//   - upnp_string_concat growth vs std::string::append
//   - upnp_istrstr vs glibc strcasestr
//   - base64 encode/decode and UTF-8 conversion throughput (bytes/second)
#include <benchmark/benchmark.h>
#include <strings.h>

#include <cstring>
#include <random>
#include <string>

#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace {

constexpr const char* kPiece = "<item id=\"42\">Some title &amp; more</item>\r\n";

void BM_UpnpStringConcat(benchmark::State& state) {
  const int pieces = static_cast<int>(state.range(0));
  for (auto _ : state) {
    upnp_string* s = nullptr;
    for (int i = 0; i < pieces; ++i) s = upnp_string_concat(s, kPiece);
    benchmark::DoNotOptimize(upnp_string_get_cstring(s));
    upnp_string_free(s);
  }
  state.SetBytesProcessed(state.iterations() * pieces * static_cast<int64_t>(std::strlen(kPiece)));
}
BENCHMARK(BM_UpnpStringConcat)->Arg(16)->Arg(256)->Arg(4096);

void BM_StdStringAppend(benchmark::State& state) {
  const int pieces = static_cast<int>(state.range(0));
  for (auto _ : state) {
    std::string s;
    for (int i = 0; i < pieces; ++i) s.append(kPiece);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(state.iterations() * pieces * static_cast<int64_t>(std::strlen(kPiece)));
}
BENCHMARK(BM_StdStringAppend)->Arg(16)->Arg(256)->Arg(4096);

// A request head like the ones the server searches: the needle sits near the end.
std::string MakeHead() {
  std::string head = "GET /MediaItems/123.mp3 HTTP/1.1\r\nHost: 192.168.1.5:9000\r\n";
  for (int i = 0; i < 12; ++i)
    head += "X-Filler-Header-" + std::to_string(i) + ": abcdefghijklmnop\r\n";
  head += "transferMode.DLNA.ORG: Streaming\r\ngetcontentFeatures.dlna.org: 1\r\n\r\n";
  return head;
}

void BM_UpnpIstrstr(benchmark::State& state) {
  const std::string head = MakeHead();
  for (auto _ : state) {
    benchmark::DoNotOptimize(upnp_istrstr(head.c_str(), "getContentFeatures.dlna.org:"));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(head.size()));
}
BENCHMARK(BM_UpnpIstrstr);

void BM_Strcasestr(benchmark::State& state) {
  const std::string head = MakeHead();
  for (auto _ : state) {
    benchmark::DoNotOptimize(strcasestr(head.c_str(), "getContentFeatures.dlna.org:"));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(head.size()));
}
BENCHMARK(BM_Strcasestr);

std::string RandomText(size_t n, bool ascii_only) {
  std::mt19937 rng(7);
  std::string s(n, 'a');
  for (auto& c : s) {
    c = static_cast<char>(ascii_only ? 32 + rng() % 95 : 1 + rng() % 255);
  }
  return s;
}

void BM_Base64Encode(benchmark::State& state) {
  const std::string text = RandomText(static_cast<size_t>(state.range(0)), true);
  for (auto _ : state) {
    char* out = upnp_string_to_base64(text.c_str());
    benchmark::DoNotOptimize(out);
    upnp_free_impl(out);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Encode)->Arg(1 << 10)->Arg(1 << 16);

void BM_Base64Decode(benchmark::State& state) {
  const std::string text = RandomText(static_cast<size_t>(state.range(0)), true);
  char* encoded = upnp_string_to_base64(text.c_str());
  for (auto _ : state) {
    char* out = upnp_string_from_base64(encoded);
    benchmark::DoNotOptimize(out);
    upnp_free_impl(out);
  }
  upnp_free_impl(encoded);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Decode)->Arg(1 << 10)->Arg(1 << 16);

void BM_Latin1ToUtf8(benchmark::State& state) {
  const std::string text = RandomText(static_cast<size_t>(state.range(0)), false);
  for (auto _ : state) {
    char* out = upnp_strdup_to_utf8(text.c_str());
    benchmark::DoNotOptimize(out);
    upnp_free_impl(out);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Latin1ToUtf8)->Arg(1 << 16);

void BM_Utf8ToLatin1(benchmark::State& state) {
  const std::string latin = RandomText(static_cast<size_t>(state.range(0)), false);
  char* utf8 = upnp_strdup_to_utf8(latin.c_str());
  const int64_t n = static_cast<int64_t>(std::strlen(utf8));
  for (auto _ : state) {
    char* out = upnp_strdup_from_utf8(utf8);
    benchmark::DoNotOptimize(out);
    upnp_free_impl(out);
  }
  upnp_free_impl(utf8);
  state.SetBytesProcessed(state.iterations() * n);
}
BENCHMARK(BM_Utf8ToLatin1)->Arg(1 << 16);

}  // namespace

BENCHMARK_MAIN();
