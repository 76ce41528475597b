// The model as a parameter hosts can set: patch:Set messages of the model
// property (an atom:Path) arrive on the control port, patch:Get asks what
// is in use, and the notify port answers with a patch:Set. Everything here
// runs on the audio thread: it reads and writes the hosts' buffers only.
#pragma once

#include <lv2/atom/atom.h>
#include <lv2/atom/forge.h>
#include <lv2/urid/urid.h>

#include <cstdint>
#include <string_view>

namespace tonwerk::lv2 {

// What one run's control sequence asked for.
struct ModelRequests {
    std::string_view path;  // the last model path set, empty for none
    bool get = false;       // the model in use was asked for
};

class ModelMessages {
public:
    explicit ModelMessages(LV2_URID_Map* map);

    ModelRequests read(const LV2_Atom_Sequence* control) const;
    // Fills the notify port's sequence: a patch:Set of `path` when it is not
    // empty, else nothing. False when the message did not fit the host's
    // buffer (it is left empty then).
    bool write(LV2_Atom_Sequence* notify, std::string_view path);

private:
    LV2_Atom_Forge forge_{};
    LV2_URID atomPath_;
    LV2_URID atomUrid_;
    LV2_URID patchSet_;
    LV2_URID patchGet_;
    LV2_URID patchProperty_;
    LV2_URID patchValue_;
    LV2_URID model_;
};

}  // namespace tonwerk::lv2
