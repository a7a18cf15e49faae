#!/bin/sh
# Runs the benchmarks of a bench build and prints the ratios against the references measured in
# the same run. Usage: sh scripts/run-bench.sh build-bench
set -eu
dir=$1
out="$dir/text_bench.json"
"$dir/bench/tw_text_bench" --benchmark_format=json --benchmark_out="$out" \
  --benchmark_out_format=json --benchmark_min_time=0.2 > /dev/null
python3 - "$out" <<'PY'
import json, sys
runs = {b["name"]: b for b in json.load(open(sys.argv[1]))["benchmarks"]}
def t(name): return runs[name]["real_time"]
print("text benchmarks (ratio = reference time / library time; above 1 means faster)")
for n in (16, 256, 4096):
    a, b = t(f"BM_UpnpStringConcat/{n}"), t(f"BM_StdStringAppend/{n}")
    print(f"  concat {n:5d} pieces: upnp {a:10.0f} ns  std::string {b:10.0f} ns  ratio {b/a:5.2f}")
a, b = t("BM_UpnpIstrstr"), t("BM_Strcasestr")
print(f"  istrstr on a request head: upnp {a:8.1f} ns  strcasestr {b:8.1f} ns  ratio {b/a:5.2f}")
for name in sorted(runs):
    if name.startswith(("BM_Base64", "BM_Latin1", "BM_Utf8")):
        r = runs[name]
        print(f"  {name:24s} {r['bytes_per_second']/1e6:9.1f} MB/s")
PY
if [ -x "$dir/bench/tw_xml_bench" ]; then
  out="$dir/xml_bench.json"
  "$dir/bench/tw_xml_bench" --benchmark_filter=Parse --benchmark_format=json --benchmark_out="$out" \
    --benchmark_out_format=json --benchmark_min_time=0.5 --benchmark_repetitions=3 \
    --benchmark_report_aggregates_only=true > /dev/null
  python3 - "$out" <<'PY'
import json, sys
runs = {b["name"]: b for b in json.load(open(sys.argv[1]))["benchmarks"]
        if b.get("aggregate_name") == "median"}
def t(name): return runs[name + "_median"]["real_time"]
print("xml benchmarks, medians of 3 (ratio = reference time / library time; above 1 is faster)")
for arg, doc in ((0, "5 MB DIDL-Lite"), (1, "3 KB description")):
    ours = t(f"BM_ParseTarnwick/{arg}")
    mb = runs[f"BM_ParseTarnwick/{arg}_median"]["bytes_per_second"] / 1e6
    print(f"  parse {doc}: {ours/1e3:10.1f} us ({mb:6.1f} MB/s)", end="")
    for ref in ("Libxml2", "Pugixml", "Expat"):
        print(f"  {ref.lower()} {t(f'BM_Parse{ref}/{arg}')/ours:5.2f}", end="")
    print(f"  tree bytes per document byte {runs[f'BM_ParseTarnwick/{arg}_median']['tree_bytes_per_doc_byte']:.2f}")
PY
  # Writers grow one big output buffer; what that costs depends on the malloc state the earlier
  # benchmarks of a process leave behind, so each writer runs in a process of its own: once with
  # glibc's defaults (its heap trimmed, big blocks mapped afresh, every page faulted in again) and
  # once with trimming and mapping off (a warm heap).
  for regime in default warm; do
    tunables=""
    [ $regime = warm ] && tunables=glibc.malloc.trim_threshold=4294967295:glibc.malloc.mmap_threshold=4294967295
    for w in WriteCompliantTarnwick WritePlainTarnwick WritePugixml; do
      GLIBC_TUNABLES=$tunables "$dir/bench/tw_xml_bench" --benchmark_filter="^BM_$w\$" \
        --benchmark_format=json --benchmark_out="$dir/xml_${regime}_$w.json" \
        --benchmark_out_format=json --benchmark_min_time=0.5 --benchmark_repetitions=3 \
        --benchmark_report_aggregates_only=true > /dev/null
    done
    python3 - "$regime" "$dir/xml_${regime}_WriteCompliantTarnwick.json" \
      "$dir/xml_${regime}_WritePlainTarnwick.json" "$dir/xml_${regime}_WritePugixml.json" <<'PY'
import json, sys
def median(path):
    return [b["real_time"] for b in json.load(open(path))["benchmarks"]
            if b.get("aggregate_name") == "median"][0]
a, p, b = (median(f) for f in sys.argv[2:5])
print(f"  writers, {sys.argv[1]} malloc: compliant {a/1e3:8.1f} us  plain {p/1e3:8.1f} us  "
      f"pugixml {b/1e3:8.1f} us  ratio compliant/pugixml {b/a:5.2f}")
PY
  done
fi
if [ -f scripts/bench-http.sh ]; then
  sh scripts/bench-http.sh "$dir"
fi
# Server core: start-up and search-answer times, inside the private loopback namespace.
if [ -x "$dir/bench/tw_server_bench" ]; then
  sh scripts/netns-run.sh "$dir/bench/tw_server_bench"
fi
# Browse of a 1000-track folder: the example server against MiniDLNA, inside the namespace.
if [ -x "$dir/tarnwick-mediaserver" ]; then
  sh bench/browse_bench.sh "$dir"
fi
# The example server against nginx serving the same files (small GETs, streaming), and its
# M-SEARCH answer time, inside the namespace.
if [ -x "$dir/tarnwick-mediaserver" ]; then
  sh bench/nginx_bench.sh "$dir"
fi
