#!/usr/bin/env bash
# The package as a daemon's developer meets it: installs the library into a staging prefix, then
# from there only
#   - compiles every public header on its own: C++17 and C++20, and the C headers as C11 too;
#   - builds and runs the same consumer twice, once through the CMake package and its imported
#     target alone, once through pkg-config and no other flag;
#   - builds and runs the C consumer through pkg-config;
#   - builds the README's daemon example as README.md shows it, runs it with an empty home and
#     the default device root, and finds its line, with the installed bundle's budget, in its log.
# Usage: check-consumer.sh BUILD CONSUMER_DIR WORK_DIR CC CXX README [SANITIZER_FLAGS]
set -euo pipefail
build=$1 consumer=$2 work=$3 cc=$4 cxx=$5 readme=$6 flags=${7:-}
rm -rf "$work" && mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(ls "$prefix"/lib*/libKeloAXLConfigLogger.so.1 2>/dev/null | head -n1)
soname=$(readelf -d "$lib" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = "libKeloAXLConfigLogger.so.1" ] || { echo "unexpected SONAME '$soname'" >&2; exit 1; }
libdir=$(dirname "$lib")
export PKG_CONFIG_PATH=$libdir/pkgconfig
# No LD_LIBRARY_PATH: what is built against the package finds the library by itself.
unset LD_LIBRARY_PATH
pkg=$(pkg-config --cflags --libs KeloAXLConfigLogger)

# Every header stands alone in each language mode a daemon may use.
strict=(-Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include")
for header in "$prefix"/include/kelo/*.h; do
  name=kelo/$(basename "$header")
  for std in c++17 c++20; do
    echo "#include <$name>" | "$cxx" -std=$std "${strict[@]}" -x c++ - \
      || { echo "$name does not compile as $std" >&2; exit 1; }
  done
  case $(basename "$header") in
    [a-z]*)  # the C interface
      printf '#include <%s>\nint kelo_header_check;\n' "$name" | "$cc" -std=c11 "${strict[@]}" -x c - \
        || { echo "$name does not compile as C11" >&2; exit 1; } ;;
  esac
done
echo "headers compile alone as C++17, C++20 and (the C ones) C11"

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer"

# $flags stays empty but for the sanitizer runtime of a sanitizer build.
# shellcheck disable=SC2086
"$cxx" $flags "$consumer/consumer.cpp" $pkg -o "$work/consumer-pkg-config"
"$work/consumer-pkg-config"
# shellcheck disable=SC2086
"$cc" -std=c11 -Wall -Wextra -Werror $flags "$consumer/consumer.c" $pkg -o "$work/consumer-c"
"$work/consumer-c"

# The README's example, exactly as written there.
awk '/^```cpp/ {block = ""; inside = 1; next}
     /^```/ && inside {if (block ~ /int main/) {printf "%s", block; exit} inside = 0; next}
     inside {block = block $0 "\n"}' "$readme" >"$work/example.cpp"
grep -q 'int main' "$work/example.cpp" || { echo "no daemon example in $readme" >&2; exit 1; }
# shellcheck disable=SC2086
"$cxx" $flags "$work/example.cpp" $pkg -o "$work/example"
mkdir -p "$work/home"
(cd "$work" && HOME=$work/home ./example)
# The installed kelo tool reads the key as the daemons do, model entry included.
budget=$(HOME=$work/home "$prefix/bin/kelo" config get globalPowerBudget)
[ -n "$budget" ] && [ "$budget" != "-1" ] || { echo "no budget in the installed bundle" >&2; exit 1; }
log=$work/home/Library/Logs/KeloLoggingDetailed.example
grep -q "budget $budget, background downloads used" "$log" 2>/dev/null || {
  echo "the example's line with budget $budget is not in $log:" >&2
  cat "$log" >&2 2>/dev/null || true
  exit 1
}
echo "installed consumers ok; the README example logged budget $budget"
