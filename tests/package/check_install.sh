#!/usr/bin/env bash
# Installs a build into a fresh prefix and uses it as hosts outside the
# project would: the example hosts built with find_package(Tonwerk) and with
# pkg-config, the Python example through the package, and the installed
# tonwerk-separate on its default model. Every host must give the demo
# song's stems bit for bit as the build's own tonwerk-example does.
#
#   check_install.sh BUILD_DIR SOURCE_DIR PYTHON WORK_DIR
set -euo pipefail
build=$1 source=$2 python=$3 work=$4
prefix=$work/prefix
stems=(vocals drum piano acoustic_guitar electric_guitar bass residual mix)

fail() { echo "FAIL: $*" >&2; exit 1; }
step() { echo "== $*"; }

rm -rf "$work" && mkdir -p "$work"
step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for file in lib/libtonwerk_proc_multistem.so.0 lib/libtonwerk_c.so.0 lib/libtonwerk_live.so.0 \
            lib/libonnxruntime_pelagrin.so include/tonwerk/tonwerk_proc_multistem.h include/tonwerk/tonwerk_c.h \
            include/tonwerk/tonwerk_live.h include/tonwerk/tonwerk_live.hpp \
            lib/cmake/Tonwerk/TonwerkConfig.cmake lib/cmake/Tonwerk/TonwerkConfigVersion.cmake \
            lib/pkgconfig/tonwerk.pc lib/pkgconfig/tonwerk_c.pc bin/tonwerk-separate bin/tonwerk-model \
            share/tonwerk/models/tonwerk-dsp-baseline.onnx share/tonwerk/models/tonwerk-stems.onnx; do
  [ -e "$prefix/$file" ] || fail "$file is not installed"
done
# Moved after installing: nothing may point back into the build or the first prefix.
mv "$prefix" "$work/moved" && prefix=$work/moved

step "the demo song as raw float"
demo=$build/demo/demo.wav
[ -f "$demo" ] || { "$python" "$source/tools/demo/make_demo.py" "$work/demo" >/dev/null; demo=$work/demo/demo.wav; }
"$python" -c 'import sys, soundfile; soundfile.read(sys.argv[1], dtype="float32")[0].tofile(sys.argv[2])' \
  "$demo" "$work/demo.f32"
model=$prefix/share/tonwerk/models/tonwerk-dsp-baseline.onnx

separate() {  # NAME COMMAND...: runs a host into $work/out/NAME
  local name=$1; shift
  mkdir -p "$work/out/$name"
  local status=0
  "$@" "$model" "$work/demo.f32" "$work/out/$name" >"$work/out/$name.log" 2>&1 || status=$?
  [ "$status" -eq 0 ] || { cat "$work/out/$name.log" >&2; fail "$name exited with status $status"; }
}
separate reference "$build/tonwerk-example"

step "find_package(Tonwerk)"
cmake -S "$source/examples" -B "$work/cmake-hosts" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake-hosts" >/dev/null
separate cmake-cpp "$work/cmake-hosts/tonwerk-example"
separate cmake-c "$work/cmake-hosts/tonwerk-example-c"

step "pkg-config"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
# shellcheck disable=SC2046  # the flags are meant to split
g++ -std=c++17 -o "$work/pc-cpp" "$source/examples/separate_raw.cpp" $(pkg-config --cflags --libs tonwerk) \
    -Wl,-rpath,"$prefix/lib"
# shellcheck disable=SC2046
gcc -std=c99 -Wall -Wextra -Wpedantic -Werror -o "$work/pc-c" "$source/examples/separate_raw.c" \
    $(pkg-config --cflags --libs tonwerk_c) -Wl,-rpath,"$prefix/lib"
separate pkg-config-cpp "$work/pc-cpp"
separate pkg-config-c "$work/pc-c"

step "Python"
TONWERK_LIBRARY=$prefix/lib PYTHONPATH=$source/python PYTHONDONTWRITEBYTECODE=1 \
  separate python "$python" "$source/examples/separate_raw.py"

for host in cmake-cpp cmake-c pkg-config-cpp pkg-config-c python; do
  for stem in "${stems[@]}"; do
    cmp -s "$work/out/reference/$stem.f32" "$work/out/$host/$stem.f32" \
      || fail "$host: $stem differs from the build's tonwerk-example"
  done
done
[ "$(stat -c %s "$work/out/reference/mix.f32")" -eq "$(stat -c %s "$work/demo.f32")" ] \
  || fail "the stems are not as long as the input"
echo "all hosts: eight stems equal bit for bit"

step "installed tonwerk-separate on its default model"
"$prefix/bin/tonwerk-separate" "$demo" -o "$work/separate" >"$work/separate.log" 2>&1 \
  || { cat "$work/separate.log" >&2; fail "tonwerk-separate failed"; }
[ "$(ls "$work/separate" | wc -l)" -eq 8 ] || fail "tonwerk-separate did not write eight stems"
echo "ok"
