#!/usr/bin/env bash
# The library exports the two classes' members and nothing else, and ONNX
# Runtime is not a load-time dependency. Reads ELF (Linux) and PE (Windows DLL).
set -euo pipefail
lib=$1

if [ "$(head -c 2 "$lib")" = "MZ" ]; then
  objdump=$(command -v x86_64-w64-mingw32-objdump || command -v objdump)
  headers=$("$objdump" -p "$lib")
  # The export name table, demangled.
  symbols=$(awk '/\[Ordinal\/Name Pointer\] Table/ { table = 1; next } table && NF == 0 { exit }
                 table { print $NF }' <<<"$headers" | c++filt | sort)
  imports=$(awk '/DLL Name:/ { print $3 }' <<<"$headers" | sort -u)
  echo "imports: $(tr '\n' ' ' <<<"$imports")"
  # Windows' own DLLs only: the C++ runtime and the thread library are linked in.
  foreign=$(grep -viE '^(kernel32|msvcrt|ucrtbase|dxgi|advapi32|user32)\.dll$|^api-ms-win-' <<<"$imports" || true)
  if [ -n "$foreign" ]; then
    echo "FAIL: load-time imports beyond the system DLLs:" >&2
    echo "$foreign" >&2
    exit 1
  fi
  # The runtime is reached through a delay-load descriptor with OrtGetApiBase as its only entry.
  table=$("$objdump" -t "$lib")
  if ! grep -q '__DELAY_IMPORT_DESCRIPTOR_.*onnxruntime_pelagrin' <<<"$table" \
     || [ "$(grep -c '__imp_Ort' <<<"$table")" -ne 1 ] || ! grep -q '__imp_OrtGetApiBase$' <<<"$table"; then
    echo "FAIL: no delay-load import of OrtGetApiBase from onnxruntime_pelagrin.dll" >&2
    exit 1
  fi
else
  symbols=$(nm -DC --defined-only "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' | sort)
  if readelf -d "$lib" | grep -i 'NEEDED.*onnxruntime'; then
    echo "FAIL: the ONNX Runtime is linked at load time" >&2
    exit 1
  fi
fi
echo "$symbols"

stray=$(grep -vE '^tonwerk::(InferenceContext|TonwerkProc)::' <<<"$symbols" || true)
if [ -n "$stray" ]; then
  echo "FAIL: symbols outside the two exported classes:" >&2
  echo "$stray" >&2
  exit 1
fi

expected=(
  'tonwerk::InferenceContext::InferenceContext(tonwerk::ModelData)'
  'tonwerk::InferenceContext::InferenceContext(tonwerk::InferenceContext&&)'
  'tonwerk::InferenceContext::operator=(tonwerk::InferenceContext&&)'
  'tonwerk::InferenceContext::~InferenceContext()'
  'tonwerk::TonwerkProc::TonwerkProc(std::shared_ptr<tonwerk::InferenceContext>, tonwerk::TonwerkProcConfig)'
  'tonwerk::TonwerkProc::~TonwerkProc()'
  'tonwerk::TonwerkProc::operator=(tonwerk::TonwerkProc const&)'
  'tonwerk::TonwerkProc::maxInputSize() const'
  'tonwerk::TonwerkProc::process(std::vector<float, std::allocator<float> > const&, bool)'
)
for e in "${expected[@]}"; do
  grep -qxF "$e" <<<"$symbols" || { echo "FAIL: missing export: $e" >&2; exit 1; }
done
echo "exports: $(wc -l <<<"$symbols") symbols, all in tonwerk::InferenceContext / tonwerk::TonwerkProc"
