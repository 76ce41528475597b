// Without DXGI there is no adapter to choose; the DirectML provider is never
// reported by the runtime on these platforms anyway.
#include "inference/dml_adapter.h"

namespace tonwerk {

int selectDmlAdapterIndex() { return 0; }

}  // namespace tonwerk
