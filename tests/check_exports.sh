#!/usr/bin/env bash
# What a library gives hosts and what it needs at load time, for ELF (Linux)
# and PE (Windows DLL) files:
# - the core library exports the two classes' members and nothing else, and
#   ONNX Runtime is not a load-time dependency (a delay-load import on Windows);
# - the C library (file name containing tonwerk_c) exports its tw_ functions
#   and nothing else, and needs only the core library beyond the system;
# - the live library (tonwerk_live) exports its tw_live_ functions and nothing
#   else, and reaches ONNX Runtime as the core library does.
set -euo pipefail
lib=$1
kind=core
case "$(basename "$lib")" in *tonwerk_c.*) kind=c ;; *tonwerk_live.*) kind=live ;; esac

fail() { echo "FAIL: $*" >&2; exit 1; }

if [ "$(head -c 2 "$lib")" = "MZ" ]; then
  objdump=$(command -v x86_64-w64-mingw32-objdump || command -v objdump)
  headers=$("$objdump" -p "$lib")
  # The export name table, demangled.
  symbols=$(awk '/\[Ordinal\/Name Pointer\] Table/ { table = 1; next } table && NF == 0 { exit }
                 table { print $NF }' <<<"$headers" | c++filt | sort)
  imports=$(awk '/DLL Name:/ { print $3 }' <<<"$headers" | sort -u)
  echo "imports: $(tr '\n' ' ' <<<"$imports")"
  # Windows' own DLLs only: the C++ runtime and the thread library are linked in.
  foreign=$(grep -viE '^(kernel32|msvcrt|ucrtbase|dxgi|advapi32|user32|tonwerk_proc_multistem)\.dll$|^api-ms-win-' \
            <<<"$imports" || true)
  [ -z "$foreign" ] || fail "load-time imports beyond the system DLLs: $foreign"
  if [ "$kind" != c ]; then
    # The runtime is reached through a delay-load descriptor with OrtGetApiBase as its only entry.
    table=$("$objdump" -t "$lib")
    if ! grep -q '__DELAY_IMPORT_DESCRIPTOR_.*onnxruntime_pelagrin' <<<"$table" \
       || [ "$(grep -c '__imp_Ort' <<<"$table")" -ne 1 ] || ! grep -q '__imp_OrtGetApiBase$' <<<"$table"; then
      fail "no delay-load import of OrtGetApiBase from onnxruntime_pelagrin.dll"
    fi
  fi
else
  symbols=$(nm -DC --defined-only "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' | sort)
  if readelf -d "$lib" | grep -i 'NEEDED.*onnxruntime'; then
    fail "the ONNX Runtime is linked at load time"
  fi
fi
echo "$symbols"

if [ "$kind" = core ]; then
  pattern='^tonwerk::(InferenceContext|TonwerkProc)::'
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
  count=14  # constructors and destructors appear twice (complete and base object)
elif [ "$kind" = live ]; then
  pattern='^tw_live_[a-z_]+$'
  expected=(tw_live_settings_init tw_live_last_error tw_live_engine_create tw_live_engine_destroy
            tw_live_engine_latency tw_live_engine_block_frames tw_live_engine_process tw_live_engine_reset
            tw_live_adapter_create tw_live_adapter_destroy tw_live_adapter_latency tw_live_adapter_process
            tw_live_adapter_reset tw_live_adapter_set_offline tw_live_adapter_underruns)
  count=${#expected[@]}
else
  pattern='^tw_[a-z_]+$'
  expected=(tw_version tw_last_error tw_context_create tw_context_release tw_processor_create
            tw_processor_destroy tw_processor_max_input tw_processor_latency tw_processor_process)
  count=${#expected[@]}
fi
stray=$(grep -vE "$pattern" <<<"$symbols" || true)
[ -z "$stray" ] || fail "unexpected exports: $stray"
for e in "${expected[@]}"; do
  grep -qxF "$e" <<<"$symbols" || fail "missing export: $e"
done
[ "$(wc -l <<<"$symbols")" -eq "$count" ] || fail "$(wc -l <<<"$symbols") exports, $count expected"
echo "exports: $count symbols, as expected"
