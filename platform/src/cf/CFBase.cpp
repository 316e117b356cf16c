/* Reference counting and equality for every CoreFoundation object of the layer. */
#include "cf/CFInternal.h"

#include <climits>

const CFAllocatorRef kCFAllocatorDefault = nullptr;

namespace {

CFInternalBase* AsObject(CFTypeRef cf) {
    auto* object = static_cast<CFInternalBase*>(const_cast<void*>(cf));
    if (object == nullptr || object->magic != kCFInternalMagic) {
        return nullptr;
    }
    return object;
}

} // namespace

void CFInternalInit(CFInternalBase* object, const CFInternalClass* cls) {
    object->magic = kCFInternalMagic;
    object->immortal = false;
    object->cls = cls;
    object->retainCount.store(1, std::memory_order_relaxed);
}

const CFInternalBase* CFInternalCast(CFTypeRef cf, const CFInternalClass* cls) {
    const CFInternalBase* object = AsObject(cf);
    if (object == nullptr || object->cls != cls) {
        return nullptr;
    }
    return object;
}

CFTypeRef CFRetain(CFTypeRef cf) {
    CFInternalBase* object = AsObject(cf);
    if (object != nullptr && !object->immortal) {
        object->retainCount.fetch_add(1, std::memory_order_relaxed);
    }
    return cf;
}

void CFRelease(CFTypeRef cf) {
    CFInternalBase* object = AsObject(cf);
    if (object == nullptr || object->immortal) {
        return;
    }
    if (object->retainCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        object->cls->finalize(object);
    }
}

CFIndex CFGetRetainCount(CFTypeRef cf) {
    CFInternalBase* object = AsObject(cf);
    if (object == nullptr) {
        return 0;
    }
    if (object->immortal) {
        return LONG_MAX;
    }
    return object->retainCount.load(std::memory_order_relaxed);
}

CFTypeID CFGetTypeID(CFTypeRef cf) {
    CFInternalBase* object = AsObject(cf);
    return object == nullptr ? 0 : object->cls->typeID;
}

Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2) {
    const CFInternalBase* a = AsObject(cf1);
    const CFInternalBase* b = AsObject(cf2);
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
