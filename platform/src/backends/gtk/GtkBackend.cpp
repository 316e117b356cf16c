/* The GTK 3 window backend: shows the layer's windows as real windows on a display
 * and turns the user's clicks, Return key and close box into the layer's events.
 *
 * The layer opens this module with dlopen only when the first window is created
 * under a display, so runs that show no window never load GTK. The module takes
 * the layer's functions from the program that loaded it (they are exported from
 * its executable) and refuses to start when they are missing. Everything but
 * wake() runs on the main thread. */
#include "backends/PlatBackend.h"

#include <dlfcn.h>
#include <gtk/gtk.h>

#include <algorithm>
#include <memory>
#include <unordered_map>
#include <vector>

namespace {

/* ---- The layer's functions, resolved from the loading program ---- */
struct LayerFunctions {
    decltype(&PlatGetWindowInfo) getWindowInfo;
    decltype(&PlatGetControlInfo) getControlInfo;
    decltype(&PlatPostControlHit) postControlHit;
    decltype(&PlatPostWindowClose) postWindowClose;
};
LayerFunctions gLayer;

template <typename T> bool ResolveLayerFunction(const char* name, T* out) {
    *out = reinterpret_cast<T>(dlsym(RTLD_DEFAULT, name));
    return *out != nullptr;
}

bool ResolveLayer() {
    return ResolveLayerFunction("PlatGetWindowInfo", &gLayer.getWindowInfo) &&
           ResolveLayerFunction("PlatGetControlInfo", &gLayer.getControlInfo) &&
           ResolveLayerFunction("PlatPostControlHit", &gLayer.postControlHit) &&
           ResolveLayerFunction("PlatPostWindowClose", &gLayer.postWindowClose);
}

/* ---- Native windows, by the layer's window ---- */
constexpr guint kPulseIntervalMs = 100; // how often an indeterminate bar moves

struct NativeControl {
    ControlRef control;
    PlatControlKind kind;
    PlatRect frame;
    GtkWidget* widget;
};

struct NativeWindow {
    WindowRef window;
    GtkWidget* toplevel;
    std::vector<NativeControl> controls;
    guint pulseSource; // 0 while no indeterminate bar moves
};

// Windows still up when the program ends are freed with the map.
std::unordered_map<WindowRef, std::unique_ptr<NativeWindow>> gWindows;

NativeWindow* NativeFor(WindowRef window) {
    auto it = gWindows.find(window);
    return it == gWindows.end() ? nullptr : it->second.get();
}

void Flush() {
    // The main thread may block in a shell command right after a window change;
    // the X server must see the change now, not at the next loop round.
    if (GdkDisplay* display = gdk_display_get_default())
        gdk_display_flush(display);
}

/* ---- Controls ---- */

// The picture scaled to fit the frame, keeping its proportions; null without one.
GdkPixbuf* PictureForFrame(const PlatControlInfo& info) {
    if (!info.rgba || info.imageWidth == 0 || info.imageHeight == 0 || info.imageWidth > G_MAXINT / 4 ||
        info.imageHeight > G_MAXINT)
        return nullptr;
    int width = static_cast<int>(info.imageWidth), height = static_cast<int>(info.imageHeight);
    GdkPixbuf* shared = gdk_pixbuf_new_from_data(info.rgba, GDK_COLORSPACE_RGB, TRUE, 8, width, height,
                                                 width * 4, nullptr, nullptr);
    if (!shared)
        return nullptr;
    GdkPixbuf* picture;
    if (info.frame.width > 0 && info.frame.height > 0 &&
        (width > info.frame.width || height > info.frame.height)) {
        double scale = std::min(static_cast<double>(info.frame.width) / width,
                                static_cast<double>(info.frame.height) / height);
        picture = gdk_pixbuf_scale_simple(shared, std::max(1, static_cast<int>(width * scale)),
                                          std::max(1, static_cast<int>(height * scale)), GDK_INTERP_BILINEAR);
    } else {
        picture = gdk_pixbuf_copy(shared); // the layer's pixels live only as long as its window
    }
    g_object_unref(shared);
    return picture;
}

void UpdateControl(const NativeControl& native, const PlatControlInfo& info) {
    const char* text = info.text ? info.text : "";
    switch (native.kind) {
    case kPlatControlStaticText:
        gtk_label_set_text(GTK_LABEL(native.widget), text);
        break;
    case kPlatControlPushButton:
        gtk_button_set_label(GTK_BUTTON(native.widget), text);
        break;
    case kPlatControlImageView: {
        GdkPixbuf* picture = PictureForFrame(info);
        gtk_image_set_from_pixbuf(GTK_IMAGE(native.widget), picture);
        if (picture)
            g_object_unref(picture);
        break;
    }
    case kPlatControlProgressIndicator:
        break;
    }
}

void OnButtonClicked(GtkButton*, gpointer control) {
    // The handler may dispose of this very window: nothing of it is used afterwards.
    gLayer.postControlHit(static_cast<ControlRef>(control));
}

GtkWidget* CreateControlWidget(const PlatControlInfo& info) {
    GtkWidget* widget = nullptr;
    switch (info.kind) {
    case kPlatControlStaticText:
        widget = gtk_label_new(nullptr);
        gtk_label_set_line_wrap(GTK_LABEL(widget), TRUE);
        gtk_label_set_line_wrap_mode(GTK_LABEL(widget), PANGO_WRAP_WORD_CHAR);
        gtk_label_set_xalign(GTK_LABEL(widget), 0.0f);
        gtk_label_set_yalign(GTK_LABEL(widget), 0.0f);
        break;
    case kPlatControlPushButton:
        widget = gtk_button_new_with_label("");
        // A click must not move the focus away from the default button, or the next
        // Return would press the clicked one.
        gtk_widget_set_focus_on_click(widget, FALSE);
        g_signal_connect(widget, "clicked", G_CALLBACK(OnButtonClicked), info.control);
        break;
    case kPlatControlImageView:
        widget = gtk_image_new();
        break;
    case kPlatControlProgressIndicator:
        widget = gtk_progress_bar_new();
        gtk_widget_set_valign(widget, GTK_ALIGN_CENTER);
        break;
    }
    if (widget && info.kind != kPlatControlStaticText)
        gtk_widget_set_size_request(widget, std::max(info.frame.width, 1), std::max(info.frame.height, 1));
    return widget;
}

// A wrapping label asks for the width of its whole text; inside a borderless
// scrolled window it gets exactly its frame, wraps at the frame's width, and what
// does not fit is cut off at the frame as on the Mac.
GtkWidget* FrameFor(GtkWidget* label, const PlatRect& frame) {
    GtkWidget* clip = gtk_scrolled_window_new(nullptr, nullptr);
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(clip), GTK_POLICY_NEVER, GTK_POLICY_EXTERNAL);
    gtk_scrolled_window_set_shadow_type(GTK_SCROLLED_WINDOW(clip), GTK_SHADOW_NONE);
    gtk_container_add(GTK_CONTAINER(clip), label);
    gtk_widget_set_size_request(clip, std::max(frame.width, 1), std::max(frame.height, 1));
    return clip;
}

/* ---- Windows ---- */

gboolean OnDeleteEvent(GtkWidget*, GdkEvent*, gpointer window) {
    // The close box is only a request: the layer's handlers decide, and an unhandled
    // close comes back to us as disposeWindow. A window without a close box cannot be
    // closed by the user at all, whatever a window manager offers.
    PlatWindowInfo info;
    if (gLayer.getWindowInfo(static_cast<WindowRef>(window), &info) && info.hasCloseBox)
        gLayer.postWindowClose(static_cast<WindowRef>(window));
    return TRUE;
}

gboolean PulseBars(gpointer data) {
    auto* native = static_cast<NativeWindow*>(data);
    for (const NativeControl& control : native->controls)
        if (control.kind == kPlatControlProgressIndicator)
            gtk_progress_bar_pulse(GTK_PROGRESS_BAR(control.widget));
    return G_SOURCE_CONTINUE;
}

void StopPulse(NativeWindow* native) {
    if (native->pulseSource) {
        g_source_remove(native->pulseSource);
        native->pulseSource = 0;
    }
}

bool HasIndeterminateBar(WindowRef window) {
    PlatControlInfo info;
    for (size_t i = 0; gLayer.getControlInfo(window, i, &info); ++i)
        if (info.kind == kPlatControlProgressIndicator && info.indeterminate)
            return true;
    return false;
}

OSStatus CreateNativeWindow(WindowRef window) {
    PlatWindowInfo info;
    if (!gLayer.getWindowInfo(window, &info))
        return paramErr;
    if (NativeFor(window))
        return noErr;

    auto owned =
        std::make_unique<NativeWindow>(NativeWindow{window, gtk_window_new(GTK_WINDOW_TOPLEVEL), {}, 0});
    NativeWindow* native = owned.get();
    GtkWindow* toplevel = GTK_WINDOW(native->toplevel);
    gtk_window_set_title(toplevel, info.title ? info.title : "");
    gtk_window_set_resizable(toplevel, FALSE);
    gtk_window_set_deletable(toplevel, info.hasCloseBox);
    gtk_window_set_position(toplevel, GTK_WIN_POS_CENTER);
    g_signal_connect(native->toplevel, "delete-event", G_CALLBACK(OnDeleteEvent), window);

    GtkWidget* fixed = gtk_fixed_new();
    gtk_widget_set_size_request(fixed, std::max(info.width, 1), std::max(info.height, 1));
    gtk_container_add(GTK_CONTAINER(native->toplevel), fixed);

    GtkWidget* defaultButton = nullptr;
    PlatControlInfo control;
    for (size_t i = 0; i < info.controlCount && gLayer.getControlInfo(window, i, &control); ++i) {
        GtkWidget* widget = CreateControlWidget(control);
        if (!widget)
            continue;
        GtkWidget* placed = control.kind == kPlatControlStaticText ? FrameFor(widget, control.frame) : widget;
        gtk_fixed_put(GTK_FIXED(fixed), placed, control.frame.x, control.frame.y);
        native->controls.push_back({control.control, control.kind, control.frame, widget});
        UpdateControl(native->controls.back(), control);
        if (control.kind == kPlatControlPushButton && control.isDefault && !defaultButton)
            defaultButton = widget;
    }
    if (defaultButton) {
        // Return activates the focused button: the default one starts with the focus.
        gtk_widget_set_can_default(defaultButton, TRUE);
        gtk_window_set_default(toplevel, defaultButton);
        gtk_window_set_focus(toplevel, defaultButton);
    }
    gWindows[window] = std::move(owned);
    return noErr;
}

void ShowNativeWindow(WindowRef window) {
    NativeWindow* native = NativeFor(window);
    if (!native)
        return;
    gtk_widget_show_all(native->toplevel);
    if (!native->pulseSource && HasIndeterminateBar(window))
        native->pulseSource = g_timeout_add(kPulseIntervalMs, PulseBars, native);
    Flush();
}

void HideNativeWindow(WindowRef window) {
    NativeWindow* native = NativeFor(window);
    if (!native)
        return;
    StopPulse(native);
    gtk_widget_hide(native->toplevel);
    Flush();
}

void DisposeNativeWindow(WindowRef window) {
    auto it = gWindows.find(window);
    if (it == gWindows.end())
        return;
    std::unique_ptr<NativeWindow> native = std::move(it->second);
    gWindows.erase(it);
    StopPulse(native.get());
    gtk_widget_destroy(native->toplevel);
    Flush();
}

void ControlChanged(WindowRef window, ControlRef control) {
    NativeWindow* native = NativeFor(window);
    if (!native)
        return;
    PlatControlInfo info;
    for (size_t i = 0; gLayer.getControlInfo(window, i, &info); ++i) {
        if (info.control != control)
            continue;
        for (const NativeControl& nativeControl : native->controls)
            if (nativeControl.control == control)
                UpdateControl(nativeControl, info);
        return;
    }
}

/* ---- The loop ---- */

gboolean EndWait(gpointer) {
    return G_SOURCE_REMOVE;
}

void Pump(int timeoutMs) {
    if (timeoutMs == 0) {
        g_main_context_iteration(nullptr, FALSE);
        return;
    }
    // A private timer bounds the wait; it is gone again before we return, so nested
    // pumps never see each other's timers.
    GSource* timer = nullptr;
    if (timeoutMs > 0) {
        timer = g_timeout_source_new(static_cast<guint>(timeoutMs));
        g_source_set_callback(timer, EndWait, nullptr, nullptr);
        g_source_attach(timer, nullptr);
    }
    g_main_context_iteration(nullptr, TRUE);
    if (timer) {
        g_source_destroy(timer);
        g_source_unref(timer);
    }
}

void Wake() {
    g_main_context_wakeup(nullptr);
}

const PlatBackendOps kGtkBackend = {
    "gtk", CreateNativeWindow, ShowNativeWindow, HideNativeWindow, DisposeNativeWindow, ControlChanged, Pump,
    Wake,
};

} // namespace

extern "C" __attribute__((visibility("default"))) const PlatBackendOps* PlatGtkBackend(void) {
    if (!ResolveLayer())
        return nullptr;
    if (!gtk_init_check(nullptr, nullptr))
        return nullptr;
    return &kGtkBackend;
}
