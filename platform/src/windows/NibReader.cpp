/* Nibs: the windows of the application, described in <name>.nib among the main
 * bundle's resources.
 *
 * A nib is an XML file in the layer's own format:
 *
 *   <nib>
 *     <window name="MessageBox" title="Vantorel" width="440" height="180" closebox="true">
 *       <statictext signature="MSG1" id="1" x="20" y="20" width="400" height="90">text</statictext>
 *       <pushbutton signature="YES1" id="1" x="230" y="130" width="90" height="28"
 * default="true">Yes</pushbutton> <imageview signature="copy" id="1" x="20" y="20" width="64" height="64"
 * picture="Installer.png"/> <progressindicator signature="prog" id="1" x="20" y="120" width="400" height="20"
 * indeterminate="true"/>
 *     </window>
 *   </nib>
 *
 * - window: name (required, how CreateWindowFromNib finds it; the first of a name
 *   counts), width and height (required, 1 to 32767), title (default empty),
 *   closebox ("true" or "false", default false).
 * - Controls, in the order the backends lay them out: frame x, y (-32768 to 32767)
 *   and width, height (0 to 32767) from the window's top left, default 0; the
 *   ControlID as signature (exactly four printable ASCII characters) and id (a
 *   signed 32-bit number), default {0, 0}. The element's text is a static text's
 *   text or a push button's caption. pushbutton takes default="true" (Return
 *   presses it), progressindicator indeterminate, imageview picture (a resource of
 *   the main bundle, a PNG file, decoded when the window is created).
 *
 * CreateNibReference fails with kIBCarbonRuntimeCantFindNibFile when the file is
 * missing, is not well-formed XML or its root is not <nib>, or holds anything but
 * windows. CreateWindowFromNib fails with kIBCarbonRuntimeCantFindObject for a
 * name no window has, and with kIBCarbonRuntimeObjectNotOfRequestedType when the
 * window cannot be built: an unknown element or attribute, a bad attribute value,
 * or two controls with the same ControlID other than {0, 0}. */
#include "events/EventInternal.h"
#include "windows/WindowInternal.h"

#include <pugixml.hpp>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

namespace {

using plat::ControlDef;
using plat::WindowDef;

struct NibRec {
    std::shared_ptr<const pugi::xml_document> document;
};

std::unordered_map<uintptr_t, NibRec>& Nibs() {
    static auto* nibs = new std::unordered_map<uintptr_t, NibRec>;
    return *nibs;
}

/* A whole decimal number within [low, high]; false for anything else. */
bool ParseInt(const char* text, long low, long high, int& out) {
    const char* digits = text[0] == '-' ? text + 1 : text;
    if (!std::isdigit(static_cast<unsigned char>(digits[0]))) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < low || value > high) {
        return false;
    }
    out = static_cast<int>(value);
    return true;
}

bool ParseBool(const char* text, bool& out) {
    if (std::strcmp(text, "true") == 0) {
        out = true;
        return true;
    }
    if (std::strcmp(text, "false") == 0) {
        out = false;
        return true;
    }
    return false;
}

/* Four printable ASCII characters, the first in the most significant byte. */
bool ParseSignature(const char* text, OSType& out) {
    if (std::strlen(text) != 4) {
        return false;
    }
    OSType value = 0;
    for (int i = 0; i < 4; i++) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c > 0x7E) {
            return false;
        }
        value = (value << 8) | c;
    }
    out = value;
    return true;
}

constexpr long kCoordMin = -32768;
constexpr long kCoordMax = 32767;

struct ControlKindName {
    const char* element;
    PlatControlKind kind;
};

constexpr ControlKindName kControlKinds[] = {
    {"statictext", kPlatControlStaticText},
    {"pushbutton", kPlatControlPushButton},
    {"imageview", kPlatControlImageView},
    {"progressindicator", kPlatControlProgressIndicator},
};

bool ParseControl(const pugi::xml_node& node, ControlDef& control) {
    bool known = false;
    for (const ControlKindName& k : kControlKinds) {
        if (std::strcmp(node.name(), k.element) == 0) {
            control.kind = k.kind;
            known = true;
        }
    }
    if (!known) {
        return false;
    }
    control.frame = PlatRect{0, 0, 0, 0};
    control.id = ControlID{0, 0};
    for (const pugi::xml_attribute& a : node.attributes()) {
        const char* name = a.name();
        const char* value = a.value();
        bool ok;
        if (std::strcmp(name, "signature") == 0) {
            ok = ParseSignature(value, control.id.signature);
        } else if (std::strcmp(name, "id") == 0) {
            int id = 0;
            ok = ParseInt(value, INT32_MIN, INT32_MAX, id);
            control.id.id = id;
        } else if (std::strcmp(name, "x") == 0) {
            ok = ParseInt(value, kCoordMin, kCoordMax, control.frame.x);
        } else if (std::strcmp(name, "y") == 0) {
            ok = ParseInt(value, kCoordMin, kCoordMax, control.frame.y);
        } else if (std::strcmp(name, "width") == 0) {
            ok = ParseInt(value, 0, kCoordMax, control.frame.width);
        } else if (std::strcmp(name, "height") == 0) {
            ok = ParseInt(value, 0, kCoordMax, control.frame.height);
        } else if (std::strcmp(name, "default") == 0 && control.kind == kPlatControlPushButton) {
            ok = ParseBool(value, control.isDefault);
        } else if (std::strcmp(name, "indeterminate") == 0 && control.kind == kPlatControlProgressIndicator) {
            ok = ParseBool(value, control.indeterminate);
        } else if (std::strcmp(name, "picture") == 0 && control.kind == kPlatControlImageView) {
            control.picture = value;
            ok = !control.picture.empty();
        } else {
            ok = false;
        }
        if (!ok) {
            return false;
        }
    }
    for (const pugi::xml_node& child : node.children()) {
        if (child.type() != pugi::node_pcdata && child.type() != pugi::node_cdata) {
            return false;
        }
        control.text += child.value();
    }
    return true;
}

bool ParseWindow(const pugi::xml_node& node, WindowDef& window) {
    bool hasWidth = false;
    bool hasHeight = false;
    for (const pugi::xml_attribute& a : node.attributes()) {
        const char* name = a.name();
        bool ok;
        if (std::strcmp(name, "name") == 0) {
            window.name = a.value();
            ok = true;
        } else if (std::strcmp(name, "title") == 0) {
            window.title = a.value();
            ok = true;
        } else if (std::strcmp(name, "width") == 0) {
            ok = hasWidth = ParseInt(a.value(), 1, kCoordMax, window.width);
        } else if (std::strcmp(name, "height") == 0) {
            ok = hasHeight = ParseInt(a.value(), 1, kCoordMax, window.height);
        } else if (std::strcmp(name, "closebox") == 0) {
            ok = ParseBool(a.value(), window.closeBox);
        } else {
            ok = false;
        }
        if (!ok) {
            return false;
        }
    }
    if (!hasWidth || !hasHeight) {
        return false;
    }
    std::set<std::pair<OSType, SInt32>> ids;
    for (const pugi::xml_node& child : node.children()) {
        if (child.type() == pugi::node_pcdata &&
            child.value()[std::strspn(child.value(), " \t\r\n")] == '\0') {
            continue;
        }
        if (child.type() != pugi::node_element) {
            return false;
        }
        ControlDef control;
        if (!ParseControl(child, control)) {
            return false;
        }
        bool identified = control.id.signature != 0 || control.id.id != 0;
        if (identified && !ids.insert({control.id.signature, control.id.id}).second) {
            return false;
        }
        window.controls.push_back(std::move(control));
    }
    return true;
}

/* A nib holds windows and nothing else. */
bool IsNib(const pugi::xml_document& document) {
    pugi::xml_node root = document.document_element();
    if (std::strcmp(root.name(), "nib") != 0 || root.first_attribute()) {
        return false;
    }
    for (const pugi::xml_node& child : root.children()) {
        if (child.type() != pugi::node_element || std::strcmp(child.name(), "window") != 0) {
            return false;
        }
    }
    return true;
}

std::string PathOf(CFURLRef url) {
    char path[PATH_MAX];
    if (!CFURLGetFileSystemRepresentation(url, true, reinterpret_cast<UInt8*>(path), sizeof path)) {
        return std::string();
    }
    return path;
}

} // namespace

OSStatus CreateNibReference(CFStringRef inNibName, IBNibRef* outNibRef) {
    if (plat::RefusedOffMainThread("CreateNibReference")) {
        return eventInternalErr;
    }
    if (outNibRef == nullptr) {
        return paramErr;
    }
    *outNibRef = nullptr;
    if (inNibName == nullptr) {
        return paramErr;
    }
    CFBundleRef bundle = CFBundleGetMainBundle();
    if (bundle == nullptr) {
        return kIBCarbonRuntimeCantFindNibFile;
    }
    CFURLRef url = CFBundleCopyResourceURL(bundle, inNibName, CFSTR("nib"), nullptr);
    if (url == nullptr) {
        return kIBCarbonRuntimeCantFindNibFile;
    }
    std::string path = PathOf(url);
    CFRelease(url);

    auto document = std::make_shared<pugi::xml_document>();
    if (path.empty() || !document->load_file(path.c_str()) || !IsNib(*document)) {
        return kIBCarbonRuntimeCantFindNibFile;
    }
    std::lock_guard<std::recursive_mutex> lock(plat::ModelLock());
    uintptr_t id = plat::NewObjectId();
    Nibs()[id] = NibRec{std::move(document)};
    *outNibRef = reinterpret_cast<IBNibRef>(id);
    return noErr;
}

void DisposeNibReference(IBNibRef inNibRef) {
    if (plat::RefusedOffMainThread("DisposeNibReference")) {
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(plat::ModelLock());
    Nibs().erase(reinterpret_cast<uintptr_t>(inNibRef));
}

OSStatus CreateWindowFromNib(IBNibRef inNibRef, CFStringRef inName, WindowRef* outWindow) {
    if (plat::RefusedOffMainThread("CreateWindowFromNib")) {
        return eventInternalErr;
    }
    if (outWindow == nullptr) {
        return paramErr;
    }
    *outWindow = nullptr;
    if (inName == nullptr) {
        return paramErr;
    }
    std::shared_ptr<const pugi::xml_document> document;
    {
        std::lock_guard<std::recursive_mutex> lock(plat::ModelLock());
        auto it = Nibs().find(reinterpret_cast<uintptr_t>(inNibRef));
        if (it == Nibs().end()) {
            return paramErr;
        }
        document = it->second.document;
    }
    CFIndex length = CFStringGetLength(inName);
    std::string name(static_cast<size_t>(length > 0 ? length : 0) * 3 + 1, '\0');
    if (!CFStringGetCString(inName, &name[0], static_cast<CFIndex>(name.size()), kCFStringEncodingUTF8)) {
        return paramErr;
    }
    name.resize(std::strlen(name.c_str()));

    pugi::xml_node node =
        document->document_element().find_child_by_attribute("window", "name", name.c_str());
    if (!node) {
        return kIBCarbonRuntimeCantFindObject;
    }
    WindowDef window;
    if (!ParseWindow(node, window)) {
        return kIBCarbonRuntimeObjectNotOfRequestedType;
    }
    return plat::CreateWindowFromDef(window, outWindow);
}
