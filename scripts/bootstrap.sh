#!/usr/bin/env bash
# Installs everything the build needs: Debian packages and the pinned npm
# packages that carry ONNX Runtime and PFFFT. Safe to run again; it returns
# quickly when everything is already in place.
#   --windows   also the mingw-w64 cross compiler and Wine (about 1.3 GB)
#   --workshop  also the model workshop's training material: recorded drum kits
#               guitar amps and singing voices (about 270 MB)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
third="$root/third_party"

ORT_NODE_PKG=onnxruntime-node@1.30.0
ORT_HEADERS_PKG=com.github.asus4.onnxruntime@0.4.9
PFFFT_PKG=@echogarden/pffft-wasm@0.4.2
DEBIAN_PACKAGES=(
  g++ libtsan2 cmake make pkg-config binutils
  libxtensor-dev xtl-dev libspdlog-dev libfmt-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libsndfile1-dev libsoxr-dev
  clang libclang-rt-dev
  python3-onnx python3-numpy python3-pytest python3-soundfile python3-pip python3-setuptools python3-wheel
  # model training: PyTorch with a threaded BLAS, and General MIDI renderers and sounds
  python3-torch libopenblas0-pthread python3-yaml fluidsynth timidity fluid-soundfont-gm timgm6mb-soundfont freepats
  mda-lv2 zynaddsubfx-lv2
  # live separation: the LV2 plugin, the hosts that test it, and the JACK example
  lv2-dev lilv-utils jalv jackd2 libjack-jackd2-dev
  # batch separation across processes and machines
  python3-distributed python3-dask
)
for option in "$@"; do
  case $option in
    --windows) DEBIAN_PACKAGES+=(g++-mingw-w64-x86-64-posix mingw-w64-tools wine wine64 googletest util-linux) ;;
    --workshop) DEBIAN_PACKAGES+=(hydrogen-drumkits avldrums.lv2-soundfont guitarix-lv2 espeak-ng rubberband-cli) ;;
    *) echo "bootstrap: unknown option $option (--windows, --workshop)" >&2; exit 2 ;;
  esac
done

fail() { echo "bootstrap: $*" >&2; exit 1; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"
  elif command -v sudo >/dev/null; then sudo "$@"
  else fail "need root (or sudo) to run: $*"; fi
}

install_debian_packages() {
  local missing=()
  for p in "${DEBIAN_PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  command -v npm >/dev/null || missing+=(npm)
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "bootstrap: installing Debian packages: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  as_root apt-get update -qq >/dev/null || fail "apt-get update failed: the Debian package registry is unreachable"
  as_root apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null \
    || fail "apt-get install failed for: ${missing[*]}"
}

# npm_unpack PACKAGE@VERSION DEST: fetches the tarball once and unpacks it.
npm_unpack() {
  local package=$1 dest=$2
  [ -f "$dest/.complete" ] && return 0
  rm -rf "$dest" && mkdir -p "$dest"
  local tmp; tmp=$(mktemp -d)
  (cd "$tmp" && npm pack --silent "$package" >/dev/null 2>"$tmp/err") \
    || { cat "$tmp/err" >&2; rm -rf "$tmp"; fail "npm pack $package failed: the npm registry is unreachable or the package is gone"; }
  tar -xzf "$tmp"/*.tgz -C "$dest" --strip-components=1
  rm -rf "$tmp"
}

install_onnxruntime() {
  local ort="$third/onnxruntime"
  [ -f "$ort/.complete" ] && return 0
  echo "bootstrap: fetching ONNX Runtime ($ORT_NODE_PKG, headers from $ORT_HEADERS_PKG)"
  local stage="$third/.stage"
  rm -rf "$stage" "$ort"
  npm_unpack "$ORT_NODE_PKG" "$stage/node"
  npm_unpack "$ORT_HEADERS_PKG" "$stage/headers"
  mkdir -p "$ort/include" "$ort/lib/linux-x64" "$ort/lib/win-x64"
  local hdr
  hdr=$(dirname "$(find "$stage/headers" -name onnxruntime_cxx_api.h -path '*Headers*' | head -n1)")
  [ -f "$hdr/onnxruntime_c_api.h" ] || fail "ONNX Runtime headers not found in $ORT_HEADERS_PKG"
  cp "$hdr"/*.h "$ort/include/"
  cp "$stage/node/bin/napi-v6/linux/x64/libonnxruntime.so.1" "$ort/lib/linux-x64/" \
    || fail "linux x64 runtime missing from $ORT_NODE_PKG"
  cp "$stage/node/bin/napi-v6/win32/x64/onnxruntime.dll" "$stage/node/bin/napi-v6/win32/x64/DirectML.dll" \
    "$ort/lib/win-x64/" || fail "win32 x64 runtime missing from $ORT_NODE_PKG"
  rm -rf "$stage"
  touch "$ort/.complete"
}

install_pffft() {
  local dir="$third/pffft"
  [ -f "$dir/.complete" ] && return 0
  echo "bootstrap: fetching PFFFT sources ($PFFFT_PKG)"
  local stage="$third/.stage-pffft"
  rm -rf "$stage" "$dir"
  npm_unpack "$PFFFT_PKG" "$stage"
  mkdir -p "$dir"
  cp "$stage/src/pffft.c" "$stage/src/pffft.h" "$dir/" || fail "pffft.c/pffft.h missing from $PFFFT_PKG"
  rm -rf "$stage"
  touch "$dir/.complete"
}

install_debian_packages
mkdir -p "$third"
install_onnxruntime
install_pffft
