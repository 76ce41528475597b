#include "model_messages.h"

#include <lv2/atom/util.h>
#include <lv2/patch/patch.h>

#include <cstring>

namespace tonwerk::lv2 {

ModelMessages::ModelMessages(LV2_URID_Map* map)
    : atomPath_(map->map(map->handle, LV2_ATOM__Path)),
      atomUrid_(map->map(map->handle, LV2_ATOM__URID)),
      patchSet_(map->map(map->handle, LV2_PATCH__Set)),
      patchGet_(map->map(map->handle, LV2_PATCH__Get)),
      patchProperty_(map->map(map->handle, LV2_PATCH__property)),
      patchValue_(map->map(map->handle, LV2_PATCH__value)),
      model_(map->map(map->handle, TONWERK_LV2_URI "#model")) {
    lv2_atom_forge_init(&forge_, map);
}

ModelRequests ModelMessages::read(const LV2_Atom_Sequence* control) const {
    ModelRequests requests;
    if (control == nullptr) return requests;
    LV2_ATOM_SEQUENCE_FOREACH(control, event) {
        if (!lv2_atom_forge_is_object_type(&forge_, event->body.type)) continue;
        const auto* object = reinterpret_cast<const LV2_Atom_Object*>(&event->body);
        const LV2_Atom* property = nullptr;
        const LV2_Atom* value = nullptr;
        lv2_atom_object_get(object, patchProperty_, &property, patchValue_, &value, 0);
        const bool aboutModel = property == nullptr || (property->type == atomUrid_ &&
                                                        reinterpret_cast<const LV2_Atom_URID*>(property)->body == model_);
        if (object->body.otype == patchGet_ && aboutModel) {
            requests.get = true;
        } else if (object->body.otype == patchSet_ && property != nullptr && aboutModel && value != nullptr &&
                   value->type == atomPath_ && value->size > 1) {
            const auto* text = static_cast<const char*>(LV2_ATOM_BODY_CONST(value));
            requests.path = std::string_view(text, strnlen(text, value->size));
        }
    }
    return requests;
}

bool ModelMessages::write(LV2_Atom_Sequence* notify, std::string_view path) {
    if (notify == nullptr) return true;
    // The host states the room it gives in the sequence's size. Headers of
    // the sequence, the event, the object and its two properties take less
    // than kOverhead bytes besides the path.
    constexpr std::size_t kOverhead = 128;
    const std::size_t room = sizeof(LV2_Atom) + notify->atom.size;
    const bool fits = path.size() + kOverhead <= room;
    lv2_atom_forge_set_buffer(&forge_, reinterpret_cast<std::uint8_t*>(notify), room);
    LV2_Atom_Forge_Frame sequence;
    lv2_atom_forge_sequence_head(&forge_, &sequence, 0);
    if (!path.empty() && fits) {
        LV2_Atom_Forge_Frame object;
        lv2_atom_forge_frame_time(&forge_, 0);
        lv2_atom_forge_object(&forge_, &object, 0, patchSet_);
        lv2_atom_forge_key(&forge_, patchProperty_);
        lv2_atom_forge_urid(&forge_, model_);
        lv2_atom_forge_key(&forge_, patchValue_);
        lv2_atom_forge_path(&forge_, path.data(), static_cast<std::uint32_t>(path.size()));
        lv2_atom_forge_pop(&forge_, &object);
    }
    lv2_atom_forge_pop(&forge_, &sequence);
    return fits;
}

}  // namespace tonwerk::lv2
