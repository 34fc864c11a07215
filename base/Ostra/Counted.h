#ifndef VIDORA_OSTRA_COUNTED_H
#define VIDORA_OSTRA_COUNTED_H

namespace Kavio {
namespace Ostra {

// For handles that share an object with an atomic m_ref_count, which begins with 1. Null is no object.

// One handle more: returns the object.
template <typename Counted>
Counted* ShareCounted(Counted* object) {
    if (object != nullptr) {
        ++object->m_ref_count;
    }
    return object;
}

// One handle less: the last one's end is the object's.
template <typename Counted>
void ReleaseCounted(Counted* object) {
    if (object != nullptr && --object->m_ref_count == 0) {
        delete object;
    }
}

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_COUNTED_H
