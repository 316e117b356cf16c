/* Reference counting for every CoreFoundation object of the layer. */
#include "cf/PlatCF.h"

const CFAllocatorRef kCFAllocatorDefault = nullptr;

namespace {

PlatCFBase* AsObject(CFTypeRef cf) {
    auto* object = static_cast<PlatCFBase*>(const_cast<void*>(cf));
    if (object == nullptr || object->magic != kPlatCFMagic) {
        return nullptr;
    }
    return object;
}

} // namespace

void PlatCFInit(PlatCFBase* object, const PlatCFClass* cls) {
    object->magic = kPlatCFMagic;
    object->immortal = false;
    object->cls = cls;
    object->retainCount.store(1, std::memory_order_relaxed);
}

const PlatCFBase* PlatCFCast(CFTypeRef cf, const PlatCFClass* cls) {
    const PlatCFBase* object = AsObject(cf);
    if (object == nullptr || object->cls != cls) {
        return nullptr;
    }
    return object;
}

CFTypeRef CFRetain(CFTypeRef cf) {
    PlatCFBase* object = AsObject(cf);
    if (object != nullptr && !object->immortal) {
        object->retainCount.fetch_add(1, std::memory_order_relaxed);
    }
    return cf;
}

void CFRelease(CFTypeRef cf) {
    PlatCFBase* object = AsObject(cf);
    if (object == nullptr || object->immortal) {
        return;
    }
    if (object->retainCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        object->cls->finalize(object);
    }
}
