#!/bin/sh
# Installs a build into a temporary prefix and uses it the way a downstream project would:
# checks the installed layout, that no installed ELF file has a RUNPATH/RPATH into the source or
# build tree, and then builds tests/api/c_compile.c against the prefix twice, through
# find_package(TarnwickUpnp) and through pkg-config, and runs both programs.
#
#   sh scripts/check_install.sh BUILD_DIR SOURCE_DIR    exit 0 pass, 1 fail, 77 skipped
#
# The ctest Package.InstallAndConsume runs it; the build must be complete.
set -eu
if [ $# -ne 2 ]; then
  echo "usage: sh scripts/check_install.sh BUILD_DIR SOURCE_DIR" >&2
  exit 2
fi
build=$(cd "$1" && pwd -P)
src=$(cd "$2" && pwd -P)
# The same trees as given, in case they were reached through a symbolic link.
build_given=$(cd "$1" && pwd -L)
src_given=$(cd "$2" && pwd -L)
cache=$build/CMakeCache.txt

fail() {
  echo "check_install: FAIL: $*" >&2
  exit 1
}
skip() {
  echo "check_install: skipped: $*"
  exit 77
}
cache_get() {
  sed -n "s/^$1:[A-Z]*=//p" "$cache" | head -n 1
}

[ -f "$cache" ] || fail "$build is not a configured build tree (no CMakeCache.txt)"
cmake=$(cache_get CMAKE_COMMAND)
cc=$(cache_get CMAKE_C_COMPILER)
version=$(cache_get CMAKE_PROJECT_VERSION)
libdir=$(cache_get CMAKE_INSTALL_LIBDIR)
includedir=$(cache_get CMAKE_INSTALL_INCLUDEDIR)
bindir=$(cache_get CMAKE_INSTALL_BINDIR)
datadir=$(cache_get CMAKE_INSTALL_DATADIR)
# GNUInstallDirs caches DATADIR empty, meaning "the same as DATAROOTDIR".
[ -n "$datadir" ] || datadir=$(cache_get CMAKE_INSTALL_DATAROOTDIR)
for d in "$libdir" "$includedir" "$bindir" "$datadir"; do
  case $d in
    /*) skip "absolute install directory $d: an install with --prefix would write outside it" ;;
  esac
done
for tool in readelf pkg-config; do
  command -v "$tool" > /dev/null 2>&1 || fail "$tool is not installed (scripts/install-deps.sh)"
done

# Nothing from the caller may help a binary find the library: the installed files must.
unset LD_LIBRARY_PATH PKG_CONFIG_LIBDIR PKG_CONFIG_SYSROOT_DIR || true
# An outer make's job server must not leak into the consumer's build.
unset MAKEFLAGS MFLAGS MAKELEVEL || true

work=$(mktemp -d "${TMPDIR:-/tmp}/tw-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

# ---- Install -----------------------------------------------------------------------------------
if ! "$cmake" --install "$build" --prefix "$prefix" > "$work/install.log" 2>&1; then
  cat "$work/install.log" >&2
  fail "cmake --install $build --prefix $prefix failed"
fi
echo "installed $build into $prefix"

# ---- Layout ------------------------------------------------------------------------------------
lib=$prefix/$libdir
[ -f "$lib/libtarnwick_upnp.so.$version" ] || fail "missing $libdir/libtarnwick_upnp.so.$version"
soname=$(readelf -d "$lib/libtarnwick_upnp.so.$version" | sed -n 's/.*(SONAME).*\[\(.*\)\]$/\1/p')
[ "$soname" = libtarnwick_upnp.so.0 ] || fail "soname is '$soname', expected libtarnwick_upnp.so.0"
[ "$(readlink "$lib/libtarnwick_upnp.so.0" || true)" = "libtarnwick_upnp.so.$version" ] ||
  fail "$libdir/libtarnwick_upnp.so.0 is not a link to libtarnwick_upnp.so.$version"
[ "$(readlink "$lib/libtarnwick_upnp.so" || true)" = libtarnwick_upnp.so.0 ] ||
  fail "$libdir/libtarnwick_upnp.so is not a link to libtarnwick_upnp.so.0"

for h in "$src"/include/tarnwick/*.h; do
  name=${h##*/}
  [ -f "$prefix/$includedir/tarnwick/$name" ] ||
    fail "public header tarnwick/$name is not installed in $includedir/tarnwick"
done

for f in TarnwickUpnpConfig.cmake TarnwickUpnpConfigVersion.cmake TarnwickUpnpTargets.cmake; do
  [ -f "$lib/cmake/TarnwickUpnp/$f" ] || fail "missing $libdir/cmake/TarnwickUpnp/$f"
done

if [ -d "$src/resources" ]; then
  (cd "$src/resources" && find . -type f) > "$work/resources.list"
  while IFS= read -r f; do
    [ -f "$prefix/$datadir/tarnwick/$f" ] || fail "resources/$f is not installed in $datadir/tarnwick"
  done < "$work/resources.list"
fi

# The example programs, when this build has them, run from the prefix with no help.
for exe in tarnwick-config tarnwick-mediaserver; do
  if [ -f "$build/$exe" ]; then
    [ -x "$prefix/$bindir/$exe" ] || fail "$exe is built but not installed in $bindir"
  fi
done
if [ -x "$prefix/$bindir/tarnwick-config" ]; then
  out=$("$prefix/$bindir/tarnwick-config" scramble secret 2>&1) ||
    fail "installed tarnwick-config does not run: $out"
  [ -n "$out" ] || fail "installed tarnwick-config printed nothing"
  # The client types come from the data directory: nothing lies beside the installed tool.
  if [ -f "$prefix/$datadir/tarnwick/clients.db" ]; then
    mkdir "$work/appdata"
    out=$("$prefix/$bindir/tarnwick-config" clients types -appdata "$work/appdata" \
      -inifile "$work/appdata/tarnwick.ini" 2>&1) ||
      fail "installed tarnwick-config finds no client types in $datadir/tarnwick: $out"
    case $out in *"001  Unknown device"*) ;; *) fail "installed client types: $out" ;; esac
  fi
fi

# ---- RUNPATH/RPATH of every installed ELF file -------------------------------------------------
# Allowed: $ORIGIN-relative entries that stay inside the prefix, and absolute system directories.
# Not allowed: anything inside the source or build tree, relative entries (they depend on the
# working directory), and absolute entries into the prefix (the tree could not move).
under() { # under PATH DIR: PATH is DIR or lies below it
  case $1 in "$2" | "$2"/*) return 0 ;; esac
  return 1
}
find "$prefix" -type f > "$work/files.list"
elf_count=0
while IFS= read -r f; do
  [ "$(od -An -c -N4 "$f" | tr -d ' ')" = '177ELF' ] || continue
  elf_count=$((elf_count + 1))
  rel=${f#"$prefix"/}
  readelf -d "$f" | grep -E '\((RPATH|RUNPATH)\)' | sed 's/.*\[\(.*\)\]$/\1/' | tr ':' '\n' \
    > "$work/runpath.list" || true
  while IFS= read -r entry; do
    [ -n "$entry" ] || continue
    # shellcheck disable=SC2016 # $ORIGIN is the loader's token, matched literally
    case $entry in
      '$ORIGIN'* | '${ORIGIN}'*)
        rest=${entry#'$ORIGIN'}
        rest=${rest#'${ORIGIN}'}
        target=$(cd "$(dirname "$f")$rest" 2> /dev/null && pwd -P) ||
          fail "$rel: RUNPATH entry $entry points to no directory"
        under "$target" "$(cd "$prefix" && pwd -P)" ||
          fail "$rel: RUNPATH entry $entry leaves the install prefix ($target)"
        ;;
      /*)
        for tree in "$build" "$build_given" "$src" "$src_given"; do
          if under "$entry" "$tree"; then fail "$rel: RUNPATH entry $entry lies inside $tree"; fi
        done
        if under "$entry" "$prefix"; then
          fail "$rel: RUNPATH entry $entry is an absolute path into the prefix"
        fi
        ;;
      *) fail "$rel: relative RUNPATH entry $entry" ;;
    esac
  done < "$work/runpath.list"
done < "$work/files.list"
[ "$elf_count" -gt 0 ] || fail "no ELF file found in the install tree"
echo "runpath: $elf_count installed ELF files, none points into the source or build tree"

# ---- Consumer through pkg-config ---------------------------------------------------------------
export PKG_CONFIG_PATH="$lib/pkgconfig"
pkg-config --exists tarnwick-upnp || fail "pkg-config does not find tarnwick-upnp in $libdir/pkgconfig"
pc_version=$(pkg-config --modversion tarnwick-upnp)
[ "$pc_version" = "$version" ] || fail "tarnwick-upnp.pc says version $pc_version, the build is $version"
pc_inc=$(pkg-config --variable=includedir tarnwick-upnp)
[ "$pc_inc" = "$prefix/$includedir" ] ||
  fail "tarnwick-upnp.pc: includedir is $pc_inc, expected $prefix/$includedir"
pc_lib=$(pkg-config --variable=libdir tarnwick-upnp)
[ "$pc_lib" = "$lib" ] || fail "tarnwick-upnp.pc: libdir is $pc_lib, expected $lib"
flags="$(pkg-config --cflags tarnwick-upnp) $(pkg-config --libs tarnwick-upnp)"
echo "pkg-config --cflags --libs tarnwick-upnp: $flags"
# shellcheck disable=SC2086 # the flags are words
"$cc" -std=c99 -pedantic -Wall -Wextra -Werror -o "$work/consumer-pc" \
  "$src/tests/api/c_compile.c" $flags > "$work/pc.log" 2>&1 || {
  cat "$work/pc.log" >&2
  fail "the consumer does not build with pkg-config's flags"
}
# pkg-config adds no RUNPATH; the loader is pointed at the prefix as a user would.
LD_LIBRARY_PATH=$lib "$work/consumer-pc" pkg-config ||
  fail "the pkg-config consumer failed (exit $?)"

# ---- Consumer through find_package -------------------------------------------------------------
if ! "$cmake" -S "$src/tests/install" -B "$work/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_BUILD_TYPE=RelWithDebInfo > "$work/cmake.log" 2>&1 ||
  ! "$cmake" --build "$work/consumer-build" >> "$work/cmake.log" 2>&1; then
  cat "$work/cmake.log" >&2
  fail "the consumer does not configure or build with find_package(TarnwickUpnp)"
fi
found=$(sed -n 's/^TarnwickUpnp_DIR:[A-Z]*=//p' "$work/consumer-build/CMakeCache.txt")
[ "$found" = "$lib/cmake/TarnwickUpnp" ] ||
  fail "find_package took TarnwickUpnp from $found, not from the prefix"
"$work/consumer-build/consumer" find_package || fail "the find_package consumer failed (exit $?)"

echo "check_install: ok"
