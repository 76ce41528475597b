// The plugin's state: which model it separates with. Hosts keep it with
// their sessions and presets; restoring it is how another model is chosen.
//
// The model loads inside restore(), which hosts call between runs, never
// during one (the plugin does not declare state:threadSafeRestore), so the
// audio thread never waits for a model and no worker is needed.
#pragma once

#include <lv2/state/state.h>

namespace tonwerk::lv2 {

const LV2_State_Interface* stateInterface();

}  // namespace tonwerk::lv2
