/* Reference counting and equality for every CoreFoundation object of the layer. */
#include "cf/PlatCF.h"

#include <climits>

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

CFIndex CFGetRetainCount(CFTypeRef cf) {
    PlatCFBase* object = AsObject(cf);
    if (object == nullptr) {
        return 0;
    }
    if (object->immortal) {
        return LONG_MAX;
    }
    return object->retainCount.load(std::memory_order_relaxed);
}

CFTypeID CFGetTypeID(CFTypeRef cf) {
    PlatCFBase* object = AsObject(cf);
    return object == nullptr ? 0 : object->cls->typeID;
}

Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2) {
    const PlatCFBase* a = AsObject(cf1);
    const PlatCFBase* b = AsObject(cf2);
    if (a == nullptr || b == nullptr) {
        return false;
    }
    if (a == b) {
        return true;
    }
    if (a->cls != b->cls || a->cls->equal == nullptr) {
        return false;
    }
    return a->cls->equal(a, b);
}
