#!/usr/bin/env bash
# The library's dynamic symbol table holds the two exported classes' members and
# nothing else, and the runtime is not a load-time dependency.
set -euo pipefail
lib=$1
symbols=$(nm -DC --defined-only "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' | sort)
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

if readelf -d "$lib" | grep -i 'NEEDED.*onnxruntime'; then
  echo "FAIL: the ONNX Runtime is linked at load time" >&2
  exit 1
fi
echo "exports: $(wc -l <<<"$symbols") symbols, all in tonwerk::InferenceContext / tonwerk::TonwerkProc"
