/* Nibs: the windows of the application, from <name>.nib/objects.xib among the
 * main bundle's (localised) resources, in Interface Builder's Carbon format.
 *
 * objects.xib is an archive of typed values. Every value is an element whose
 * name is its type (string, int, unsigned_int, boolean TRUE/FALSE, ostype,
 * array, dictionary, reference idRef=..., object class=... id=...) and whose
 * name attribute is its key inside the enclosing object:
 *
 *   <object class="NSIBObjectData">
 *     <string name="targetFramework">IBCarbonFramework</string>
 *     <array name="allObjects"> windows and menus, inline or as references </array>
 *     <array name="allParents"> one parent per entry of allObjects </array>
 *     <dictionary name="nameTable"> <string>MessageBox</string> <reference idRef="166"/> ... </dictionary>
 *   </object>
 *
 * A window is an IBCarbonWindow: windowRect "top left bottom right " in global
 * coordinates, title, hasCloseBox (default TRUE), carbonWindowClass, and a
 * rootControl whose subviews nest. A view has bounds "top left bottom right "
 * in window coordinates whatever its depth, controlSignature, controlID, title,
 * command; a button's buttonType 1 marks the default button, 2 the cancel
 * button; a progress bar's indeterminate; an image view's imageName, a PNG
 * resource of the main bundle. Only IBCarbonStaticText, IBCarbonButton,
 * IBCarbonProgressBar and IBCarbonImageView are built; other views are passed
 * over (their subviews are still read), and so is every key not named here.
 *
 * CreateNibReference fails with kIBCarbonRuntimeCantFindNibFile when no
 * localisation holds the file, or it is not a regular file of at most
 * kMaxNibBytes, not well-formed XML, or not such an archive. CreateWindowFromNib
 * fails with kIBCarbonRuntimeCantFindObject for a name the name table lacks or
 * an object that is not in the file, and with
 * kIBCarbonRuntimeObjectNotOfRequestedType when the object is not a window or
 * the window cannot be built: a missing or bad windowRect, a value of the wrong
 * type or form, a control without bounds or outside its window, two controls
 * with the same ControlID other than {0, 0}, views nested deeper than
 * kMaxViewDepth. */
#include "cf/PlatCF.h"
#include "events/EventInternal.h"
#include "windows/WindowInternal.h"

#include <pugixml.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

/* Real nibs are tens of kilobytes; anything far larger is not one. */
constexpr long kMaxNibBytes = 2L * 1024 * 1024;
/* Interface Builder nests panes a few levels deep at most. */
constexpr int kMaxViewDepth = 32;
/* Carbon rectangles hold 16-bit coordinates. */
constexpr long kCoordMin = -32768;
constexpr long kCoordMax = 32767;

/* Window classes that may have a close box: floating, document, utility. */
constexpr int kNibFloatingWindowClass = 5;
constexpr int kNibDocumentWindowClass = 6;
constexpr int kNibUtilityWindowClass = 8;

/* buttonType of an IBCarbonButton. */
constexpr int kNibDefaultButtonType = 1;
constexpr int kNibCancelButtonType = 2;

struct NibRec {
    std::unique_ptr<pugi::xml_document> document;
    std::unordered_map<std::string, std::string> names;  /* nameTable: name -> object id */
    std::unordered_map<std::string, pugi::xml_node> ids; /* every object with an id */
};

std::unordered_map<uintptr_t, std::shared_ptr<const NibRec>>& Nibs() {
    static auto* nibs = new std::unordered_map<uintptr_t, std::shared_ptr<const NibRec>>;
    return *nibs;
}

bool Is(const pugi::xml_node& node, const char* type) {
    return node.type() == pugi::node_element && std::strcmp(node.name(), type) == 0;
}

/* The value stored under key in an archived object, of any type; null if none. */
pugi::xml_node Member(const pugi::xml_node& object, const char* key) {
    for (const pugi::xml_node& child : object.children()) {
        if (child.type() == pugi::node_element && std::strcmp(child.attribute("name").value(), key) == 0) {
            return child;
        }
    }
    return pugi::xml_node();
}

/* A whole decimal number within [low, high] at the start of text; advances text. */
bool ParseNumber(const char*& text, long low, long high, long& out) {
    const char* digits = text[0] == '-' ? text + 1 : text;
    if (*digits < '0' || *digits > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(text, &end, 10);
    if (errno != 0 || value < low || value > high) {
        return false;
    }
    text = end;
    out = value;
    return true;
}

/* An <int>: a signed 32-bit decimal number and nothing else. */
bool ParseInt(const pugi::xml_node& value, long& out) {
    const char* text = value.child_value();
    return Is(value, "int") && ParseNumber(text, INT32_MIN, INT32_MAX, out) && *text == '\0';
}

bool ParseBoolean(const pugi::xml_node& value, bool& out) {
    if (!Is(value, "boolean")) {
        return false;
    }
    out = std::strcmp(value.child_value(), "TRUE") == 0;
    return out || std::strcmp(value.child_value(), "FALSE") == 0;
}

/* An <ostype>: four printable ASCII characters, the first in the most significant byte. */
bool ParseOSType(const pugi::xml_node& value, OSType& out) {
    const char* text = value.child_value();
    if (!Is(value, "ostype") || std::strlen(text) != 4) {
        return false;
    }
    OSType code = 0;
    for (int i = 0; i < 4; i++) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c > 0x7E) {
            return false;
        }
        code = (code << 8) | c;
    }
    out = code;
    return true;
}

bool ParseString(const pugi::xml_node& value, std::string& out) {
    if (!Is(value, "string")) {
        return false;
    }
    out = value.child_value();
    return true;
}

/* A rectangle as Interface Builder writes it: "top left bottom right ", four
 * 16-bit numbers separated by blanks, none of the sides reversed. */
bool ParseRect(const pugi::xml_node& value, PlatRect& out) {
    if (!Is(value, "string")) {
        return false;
    }
    const char* text = value.child_value();
    long sides[4];
    for (long& side : sides) {
        text += std::strspn(text, " ");
        if (!ParseNumber(text, kCoordMin, kCoordMax, side) || (*text != ' ' && *text != '\0')) {
            return false;
        }
    }
    if (text[std::strspn(text, " ")] != '\0' || sides[2] < sides[0] || sides[3] < sides[1]) {
        return false;
    }
    out = PlatRect{static_cast<int>(sides[1]), static_cast<int>(sides[0]),
                   static_cast<int>(sides[3] - sides[1]), static_cast<int>(sides[2] - sides[0])};
    return true;
}

struct ControlClass {
    const char* name;
    PlatControlKind kind;
};

constexpr ControlClass kControlClasses[] = {
    {"IBCarbonStaticText", kPlatControlStaticText},
    {"IBCarbonButton", kPlatControlPushButton},
    {"IBCarbonImageView", kPlatControlImageView},
    {"IBCarbonProgressBar", kPlatControlProgressIndicator},
};

/* One view and, unless it is hidden, the views inside it, in nib order. */
class ViewReader {
  public:
    explicit ViewReader(PlatWindowDef& window) : window_(window) {}

    bool Read(const pugi::xml_node& view, int depth) {
        if (depth > kMaxViewDepth) {
            return false;
        }
        bool known = false;
        PlatControlDef control{};
        for (const ControlClass& c : kControlClasses) {
            if (std::strcmp(view.attribute("class").value(), c.name) == 0) {
                control.kind = c.kind;
                known = true;
            }
        }
        control.frame = PlatRect{0, 0, 0, 0};
        control.id = ControlID{0, 0};
        bool hasBounds = false;
        bool hidden = false;
        pugi::xml_node subviews;
        for (const pugi::xml_node& value : view.children()) {
            if (!ReadMember(value, control, hasBounds, hidden, subviews)) {
                return false;
            }
        }
        if (hidden) {
            return true;
        }
        if (known && !Place(control, hasBounds)) {
            return false;
        }
        if (known) {
            window_.controls.push_back(std::move(control));
        }
        if (subviews) {
            if (!Is(subviews, "array")) {
                return false;
            }
            for (const pugi::xml_node& child : subviews.children()) {
                /* Views are archived inline; a reference would point back into the tree. */
                if (Is(child, "object") && !Read(child, depth + 1)) {
                    return false;
                }
            }
        }
        return true;
    }

  private:
    bool ReadMember(const pugi::xml_node& value, PlatControlDef& control, bool& hasBounds, bool& hidden,
                    pugi::xml_node& subviews) {
        const char* key = value.attribute("name").value();
        long number = 0;
        bool ok = true;
        if (std::strcmp(key, "bounds") == 0) {
            ok = hasBounds = ParseRect(value, control.frame);
        } else if (std::strcmp(key, "controlSignature") == 0) {
            ok = ParseOSType(value, control.id.signature);
        } else if (std::strcmp(key, "controlID") == 0) {
            ok = ParseInt(value, number);
            control.id.id = static_cast<SInt32>(number);
        } else if (std::strcmp(key, "title") == 0) {
            ok = ParseString(value, control.text);
        } else if (std::strcmp(key, "command") == 0) {
            ok = ParseOSType(value, control.command);
        } else if (std::strcmp(key, "buttonType") == 0) {
            ok = ParseInt(value, number);
            control.isDefault = number == kNibDefaultButtonType;
            control.isCancel = number == kNibCancelButtonType;
        } else if (std::strcmp(key, "indeterminate") == 0) {
            ok = ParseBoolean(value, control.indeterminate);
        } else if (std::strcmp(key, "imageName") == 0) {
            ok = ParseString(value, control.picture);
        } else if (std::strcmp(key, "hidden") == 0) {
            ok = ParseBoolean(value, hidden);
        } else if (std::strcmp(key, "subviews") == 0) {
            subviews = value;
        }
        return ok;
    }

    /* A built control lies wholly inside its window and has a ControlID of its own. */
    bool Place(const PlatControlDef& control, bool hasBounds) {
        const PlatRect& f = control.frame;
        if (!hasBounds || f.x < 0 || f.y < 0 || f.x + f.width > window_.width ||
            f.y + f.height > window_.height) {
            return false;
        }
        bool identified = control.id.signature != 0 || control.id.id != 0;
        return !identified || ids_.insert({control.id.signature, control.id.id}).second;
    }

    PlatWindowDef& window_;
    std::set<std::pair<OSType, SInt32>> ids_;
};

bool ParseWindow(const pugi::xml_node& object, PlatWindowDef& window) {
    PlatRect rect{};
    if (!ParseRect(Member(object, "windowRect"), rect) || rect.width == 0 || rect.height == 0) {
        return false;
    }
    window.width = rect.width;
    window.height = rect.height;
    long windowClass = kNibDocumentWindowClass;
    bool hasCloseBox = true;
    pugi::xml_node value;
    if ((value = Member(object, "title")) && !ParseString(value, window.title)) {
        return false;
    }
    if ((value = Member(object, "carbonWindowClass")) && !ParseInt(value, windowClass)) {
        return false;
    }
    if ((value = Member(object, "hasCloseBox")) && !ParseBoolean(value, hasCloseBox)) {
        return false;
    }
    window.closeBox =
        hasCloseBox && (windowClass == kNibDocumentWindowClass || windowClass == kNibFloatingWindowClass ||
                        windowClass == kNibUtilityWindowClass);
    pugi::xml_node root = Member(object, "rootControl");
    if (!root) {
        return true;
    }
    if (!Is(root, "object")) {
        return false;
    }
    pugi::xml_node subviews = Member(root, "subviews");
    if (!subviews) {
        return true;
    }
    if (!Is(subviews, "array")) {
        return false;
    }
    ViewReader reader(window);
    for (const pugi::xml_node& child : subviews.children()) {
        if (Is(child, "object") && !reader.Read(child, 1)) {
            return false;
        }
    }
    return true;
}

/* Every object that has an id, wherever it is archived; false if an id repeats. */
bool IndexObjects(const pugi::xml_node& top, std::unordered_map<std::string, pugi::xml_node>& ids) {
    pugi::xml_node node = top;
    while (node) {
        if (Is(node, "object") && node.attribute("id") &&
            !ids.emplace(node.attribute("id").value(), node).second) {
            return false;
        }
        if (node.first_child()) {
            node = node.first_child();
            continue;
        }
        while (node && node != top && !node.next_sibling()) {
            node = node.parent();
        }
        node = node == top ? pugi::xml_node() : node.next_sibling();
    }
    return true;
}

size_t CountElements(const pugi::xml_node& array) {
    size_t count = 0;
    for (const pugi::xml_node& child : array.children()) {
        count += child.type() == pugi::node_element;
    }
    return count;
}

/* The archive's frame: a Carbon object data whose parent list matches its
 * object list and whose name table pairs names with references. */
bool ReadArchive(NibRec& nib) {
    pugi::xml_node root = nib.document->document_element();
    pugi::xml_node objects = Member(root, "allObjects");
    pugi::xml_node parents = Member(root, "allParents");
    pugi::xml_node names = Member(root, "nameTable");
    if (!Is(root, "object") || std::strcmp(root.attribute("class").value(), "NSIBObjectData") != 0 ||
        std::strcmp(Member(root, "targetFramework").child_value(), "IBCarbonFramework") != 0 ||
        !Is(objects, "array") || !Is(parents, "array") || CountElements(objects) != CountElements(parents) ||
        !Is(names, "dictionary")) {
        return false;
    }
    pugi::xml_node key;
    for (const pugi::xml_node& entry : names.children()) {
        if (entry.type() != pugi::node_element) {
            continue;
        }
        if (!key) {
            if (!Is(entry, "string")) {
                return false;
            }
            key = entry;
            continue;
        }
        if (!Is(entry, "reference") || !entry.attribute("idRef")) {
            return false;
        }
        nib.names.emplace(key.child_value(), entry.attribute("idRef").value());
        key = pugi::xml_node();
    }
    return !key && IndexObjects(root, nib.ids);
}

/* The whole file, if it is a regular file of a size a nib can have. */
bool ReadFile(const std::string& path, std::string& bytes) {
    return PlatCFReadRegularFile(path, kMaxNibBytes, bytes);
}

std::string PathOf(CFURLRef url) {
    char path[PATH_MAX];
    if (!CFURLGetFileSystemRepresentation(url, true, reinterpret_cast<UInt8*>(path), sizeof path)) {
        return std::string();
    }
    return path;
}

std::string UTF8Of(CFStringRef string) {
    CFIndex length = CFStringGetLength(string);
    std::string text(static_cast<size_t>(length > 0 ? length : 0) * 3 + 1, '\0');
    if (!CFStringGetCString(string, &text[0], static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8)) {
        return std::string();
    }
    text.resize(std::strlen(text.c_str()));
    return text;
}

/* <name>.nib/objects.xib in the first of the bundle's places that has one:
 * the resources themselves, then the user's languages, then English. */
std::string FindNib(const std::string& name) {
    CFBundleRef bundle = CFBundleGetMainBundle();
    if (bundle == nullptr || name.empty() || name.find('/') != std::string::npos) {
        return std::string();
    }
    CFStringRef folder = CFStringCreateWithCString(nullptr, (name + ".nib").c_str(), kCFStringEncodingUTF8);
    if (folder == nullptr) {
        return std::string();
    }
    CFURLRef url = CFBundleCopyResourceURL(bundle, CFSTR("objects"), CFSTR("xib"), folder);
    CFRelease(folder);
    if (url == nullptr) {
        return std::string();
    }
    std::string path = PathOf(url);
    CFRelease(url);
    return path;
}

} // namespace

OSStatus CreateNibReference(CFStringRef inNibName, IBNibRef* outNibRef) {
    if (PlatRefusedOffMainThread("CreateNibReference")) {
        return eventInternalErr;
    }
    if (outNibRef == nullptr) {
        return paramErr;
    }
    *outNibRef = nullptr;
    if (inNibName == nullptr) {
        return paramErr;
    }
    std::string path = FindNib(UTF8Of(inNibName));
    std::string bytes;
    if (path.empty() || !ReadFile(path, bytes)) {
        return kIBCarbonRuntimeCantFindNibFile;
    }
    auto nib = std::make_shared<NibRec>();
    nib->document = std::make_unique<pugi::xml_document>();
    if (!nib->document->load_buffer(bytes.data(), bytes.size()) || !ReadArchive(*nib)) {
        return kIBCarbonRuntimeCantFindNibFile;
    }
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    uintptr_t id = PlatNewObjectId();
    Nibs()[id] = std::move(nib);
    *outNibRef = reinterpret_cast<IBNibRef>(id);
    return noErr;
}

void DisposeNibReference(IBNibRef inNibRef) {
    if (PlatRefusedOffMainThread("DisposeNibReference")) {
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    Nibs().erase(reinterpret_cast<uintptr_t>(inNibRef));
}

OSStatus CreateWindowFromNib(IBNibRef inNibRef, CFStringRef inName, WindowRef* outWindow) {
    if (PlatRefusedOffMainThread("CreateWindowFromNib")) {
        return eventInternalErr;
    }
    if (outWindow == nullptr) {
        return paramErr;
    }
    *outWindow = nullptr;
    if (inName == nullptr) {
        return paramErr;
    }
    std::shared_ptr<const NibRec> nib;
    {
        std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
        auto it = Nibs().find(reinterpret_cast<uintptr_t>(inNibRef));
        if (it == Nibs().end()) {
            return paramErr;
        }
        nib = it->second;
    }
    std::string name = UTF8Of(inName);
    auto named = nib->names.find(name);
    if (name.empty() || named == nib->names.end()) {
        return kIBCarbonRuntimeCantFindObject;
    }
    auto object = nib->ids.find(named->second);
    if (object == nib->ids.end()) {
        return kIBCarbonRuntimeCantFindObject;
    }
    if (std::strcmp(object->second.attribute("class").value(), "IBCarbonWindow") != 0) {
        return kIBCarbonRuntimeObjectNotOfRequestedType;
    }
    PlatWindowDef window;
    window.name = name;
    if (!ParseWindow(object->second, window)) {
        return kIBCarbonRuntimeObjectNotOfRequestedType;
    }
    return PlatCreateWindowFromDef(window, outWindow);
}
