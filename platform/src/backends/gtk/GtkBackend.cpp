/* The GTK 3 window backend: shows the layer's windows as real dialogs on a display
 * and turns the user's clicks, keys and close box into the layer's events: Return
 * and Enter press the window's default button, Escape and Ctrl-. its cancel button.
 * A display that goes away is, for each window with a close box, its close box;
 * the program goes on without windows.
 *
 * The layer opens this module with dlopen only when the first window is created
 * under a display, so runs that show no window never load GTK. The module takes
 * the layer's functions from the program that loaded it (they are exported from
 * its executable) and refuses to start when they are missing. Everything but
 * wake() runs on the main thread. */
#include "backends/PlatBackend.h"

#include <dlfcn.h>
#include <gdk/gdkkeysyms.h>
#include <gdk/gdkwayland.h>
#include <gdk/gdkx.h>
#include <glib-unix.h>
#include <gtk/gtk.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <wayland-client.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
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
// A text grows its window rather than be cut, up to this width; a longer word wraps.
constexpr int kMaxTextWidth = 960;

struct NativeControl {
    ControlRef control;
    PlatControlKind kind;
    PlatRect frame; // in the nib
    GtkWidget* widget;
    GtkWidget* placed; // what the window holds: the widget, or the frame around a text
};

struct NativeWindow {
    WindowRef window;
    GtkWidget* toplevel;
    GtkWidget* fixed; // places the controls at their frames
    PlatRect size;    // the window's size in the nib
    std::vector<NativeControl> controls;
    guint pulseSource;     // 0 while no indeterminate bar moves
    bool focusMovedByUser; // Tab or an arrow key moved the focus from the default button
};

// Windows still up when the program ends are freed with the map.
std::unordered_map<WindowRef, std::unique_ptr<NativeWindow>> gWindows;

/* ---- The display ---- */
// Set when the connection to the X server or the Wayland compositor is lost; from
// then on GTK is not called again, and the loop waits on its own.
bool gDisplayLost = false;
bool gLossAnswered = false;

int WakeFd() {
    static int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

int OnDisplayLost(Display*) {
    gDisplayLost = true;
    return 0;
}

// The compositor closed its end: from now on GTK is not called again, before its own
// event source finds the connection gone and ends the process.
gboolean OnCompositorGone(gint, GIOCondition, gpointer) {
    gDisplayLost = true;
    return G_SOURCE_REMOVE;
}

void OnDisplayLostExit(Display*, void*) {
    // Returning keeps the process alive; Xlib makes no more calls on the display.
}

// Each window with a close box is closed as by the user; the others just vanish,
// while whatever the program was doing goes on. The widgets are left as they
// are: destroying them would talk to a display that is not there.
void AnswerDisplayLoss() {
    if (!gDisplayLost || gLossAnswered) {
        return;
    }
    gLossAnswered = true;
    for (auto& [window, native] : gWindows) {
        PlatWindowInfo info;
        if (native->pulseSource) {
            g_source_remove(native->pulseSource);
            native->pulseSource = 0;
        }
        if (gLayer.getWindowInfo(window, &info) && info.hasCloseBox &&
            gtk_widget_get_visible(native->toplevel)) {
            gLayer.postWindowClose(window);
        }
    }
}

NativeWindow* NativeFor(WindowRef window) {
    auto it = gWindows.find(window);
    return it == gWindows.end() ? nullptr : it->second.get();
}

void Flush() {
    // The main thread may block in a shell command right after a window change;
    // the X server must see the change now, not at the next loop round.
    if (GdkDisplay* display = gdk_display_get_default()) {
        gdk_display_flush(display);
    }
    AnswerDisplayLoss();
}

/* ---- Controls ---- */

// The picture scaled to fit the frame, keeping its proportions; null without one.
GdkPixbuf* PictureForFrame(const PlatControlInfo& info) {
    if (!info.rgba || info.imageWidth == 0 || info.imageHeight == 0 || info.imageWidth > G_MAXINT / 4 ||
        info.imageHeight > G_MAXINT) {
        return nullptr;
    }
    int width = static_cast<int>(info.imageWidth), height = static_cast<int>(info.imageHeight);
    GdkPixbuf* shared = gdk_pixbuf_new_from_data(info.rgba, GDK_COLORSPACE_RGB, TRUE, 8, width, height,
                                                 width * 4, nullptr, nullptr);
    if (!shared) {
        return nullptr;
    }
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
    case kPlatControlPushButton: {
        gtk_button_set_label(GTK_BUTTON(native.widget), text);
        // The default button looks it, and has the focus, so Space presses it too.
        GtkStyleContext* style = gtk_widget_get_style_context(native.widget);
        GtkWindow* toplevel = GTK_WINDOW(gtk_widget_get_toplevel(native.widget));
        if (info.isDefault) {
            gtk_style_context_add_class(style, GTK_STYLE_CLASS_SUGGESTED_ACTION);
            gtk_widget_set_can_default(native.widget, TRUE);
            gtk_window_set_default(toplevel, native.widget);
            gtk_window_set_focus(toplevel, native.widget);
        } else {
            gtk_style_context_remove_class(style, GTK_STYLE_CLASS_SUGGESTED_ACTION);
            if (gtk_window_get_default_widget(toplevel) == native.widget) {
                gtk_window_set_default(toplevel, nullptr);
            }
        }
        break;
    }
    case kPlatControlImageView: {
        GdkPixbuf* picture = PictureForFrame(info);
        gtk_image_set_from_pixbuf(GTK_IMAGE(native.widget), picture);
        if (picture) {
            g_object_unref(picture);
        }
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
        gtk_label_set_line_wrap_mode(GTK_LABEL(widget), PANGO_WRAP_WORD);
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
    if (widget && info.kind != kPlatControlStaticText) {
        gtk_widget_set_size_request(widget, std::max(info.frame.width, 1), std::max(info.frame.height, 1));
    }
    return widget;
}

// A wrapping label asks for the width of its whole text; inside a borderless
// scrolled window it gets exactly the size the layout gives it (see Layout).
GtkWidget* FrameFor(GtkWidget* label, const PlatRect& frame) {
    GtkWidget* clip = gtk_scrolled_window_new(nullptr, nullptr);
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(clip), GTK_POLICY_NEVER, GTK_POLICY_EXTERNAL);
    gtk_scrolled_window_set_shadow_type(GTK_SCROLLED_WINDOW(clip), GTK_SHADOW_NONE);
    gtk_container_add(GTK_CONTAINER(clip), label);
    // A text is no stop for Tab: the focus goes from button to button.
    gtk_widget_set_can_focus(clip, FALSE);
    gtk_widget_set_can_focus(gtk_bin_get_child(GTK_BIN(clip)), FALSE);
    gtk_widget_set_size_request(clip, std::max(frame.width, 1), std::max(frame.height, 1));
    return clip;
}

/* ---- Layout ---- */

// Whether the last of several lines holds a single character (blanks aside).
bool EndsWithALoneCharacter(PangoLayout* layout) {
    int count = pango_layout_get_line_count(layout);
    if (count < 2) {
        return false;
    }
    PangoLayoutLine* last = pango_layout_get_line_readonly(layout, count - 1);
    const char* text = pango_layout_get_text(layout) + last->start_index;
    int characters = 0;
    for (const char* p = text; p < text + last->length; p = g_utf8_next_char(p)) {
        characters += g_unichar_isspace(g_utf8_get_char(p)) ? 0 : 1;
    }
    return characters == 1;
}

// The width to wrap a text at: the width it is given, or a little less where that
// would leave one character alone on the last line, as East Asian text, which may
// break between any two characters, easily does. Measured with Pango on the label's
// own layout, so the label wraps as measured.
int WrapWidth(GtkWidget* label, int width) {
    PangoLayout* layout = pango_layout_copy(gtk_label_get_layout(GTK_LABEL(label)));
    int wrap = width;
    pango_layout_set_width(layout, wrap * PANGO_SCALE);
    // Each round moves at least the last character of the line before down.
    for (int round = 0; round < 4 && EndsWithALoneCharacter(layout); ++round) {
        PangoRectangle logical;
        pango_layout_line_get_pixel_extents(
            pango_layout_get_line_readonly(layout, pango_layout_get_line_count(layout) - 1), nullptr,
            &logical);
        wrap -= std::max(logical.width, 1);
        pango_layout_set_width(layout, std::max(wrap, 1) * PANGO_SCALE);
    }
    bool lone = EndsWithALoneCharacter(layout);
    g_object_unref(layout);
    return lone || wrap < width / 2 ? width : wrap;
}

// The size a text needs to show every word whole: its frame, wider for a word
// longer than the frame is wide, and taller for as many lines as it wraps into.
// Where the width would leave a lone character on the last line, the text wraps a
// little short of its right edge (a margin inside its frame).
PlatRect TextNeeds(GtkWidget* label, const PlatRect& frame) {
    int minimum = 0, natural = 0;
    gtk_widget_set_margin_end(label, 0);
    gtk_label_set_line_wrap_mode(GTK_LABEL(label), PANGO_WRAP_WORD);
    gtk_widget_get_preferred_width(label, &minimum, &natural);
    if (minimum > kMaxTextWidth) {
        gtk_label_set_line_wrap_mode(GTK_LABEL(label), PANGO_WRAP_WORD_CHAR);
        gtk_widget_get_preferred_width(label, &minimum, &natural);
    }
    int width = std::max(frame.width, std::min(minimum, kMaxTextWidth));
    gtk_widget_set_margin_end(label, width - WrapWidth(label, width));
    gtk_widget_get_preferred_height_for_width(label, width, &minimum, &natural);
    return PlatRect{frame.x, frame.y, width, std::max(frame.height, natural)};
}

// Whether two frames share a row: they overlap from top to bottom.
bool SameRow(const PlatRect& a, const PlatRect& b) {
    return a.y < b.y + b.height && b.y < a.y + a.height;
}

// Whether a frame keeps its distance to the window's right edge when the window grows.
bool KeepsRightMargin(const PlatRect& frame, int windowWidth) {
    return 2 * frame.x + frame.width >= windowWidth;
}

// Widens a push button to its caption, never narrower than in the nib; how much wider.
int FitButton(const NativeControl& button) {
    int height = std::max(button.frame.height, 1), minimum = 0, natural = 0;
    gtk_widget_set_size_request(button.widget, std::max(button.frame.width, 1), height);
    gtk_widget_get_preferred_width(button.widget, &minimum, &natural);
    int width = std::max(button.frame.width, minimum);
    gtk_widget_set_size_request(button.widget, std::max(width, 1), height);
    return width - button.frame.width;
}

// Places the controls at their nib frames, with room for every caption and text,
// keeping the nib's margins. A button grows to its caption: one in the right half
// towards the left, so that it keeps its distance to the right edge, the others
// towards the right, pushing the buttons of their row aside; the window widens by
// what a row of buttons grew, and so do the texts that reach into its right half.
// A text that needs more room still grows: the controls below it move down, and
// those in the right half keep their distance to the right edge. The window never
// gets smaller than in the nib.
void Layout(NativeWindow* native) {
    const std::vector<NativeControl>& controls = native->controls;
    const int windowWidth = native->size.width;
    std::vector<int> grew(controls.size(), 0);
    for (size_t i = 0; i < controls.size(); ++i) {
        if (controls[i].kind == kPlatControlPushButton) {
            grew[i] = FitButton(controls[i]);
        }
    }
    int wider = 0;
    for (size_t i = 0; i < controls.size(); ++i) {
        int row = 0;
        for (size_t j = 0; j < controls.size(); ++j) {
            if (controls[j].kind == kPlatControlPushButton && SameRow(controls[i].frame, controls[j].frame)) {
                row += grew[j];
            }
        }
        wider = std::max(wider, controls[i].kind == kPlatControlPushButton ? row : 0);
    }

    struct Growth {
        PlatRect frame;
        int down, right;
    };
    std::vector<Growth> growths;
    const int buttonsWider = wider;
    for (const NativeControl& control : controls) {
        if (control.kind != kPlatControlStaticText) {
            continue;
        }
        PlatRect base = control.frame;
        if (KeepsRightMargin(base, windowWidth)) {
            base.width += buttonsWider;
        }
        PlatRect needs = TextNeeds(control.widget, base);
        gtk_widget_set_size_request(control.placed, std::max(needs.width, 1), std::max(needs.height, 1));
        growths.push_back(
            {control.frame, needs.height - control.frame.height, needs.width - control.frame.width});
        wider = std::max(wider, needs.width - control.frame.width);
    }

    int taller = 0;
    for (size_t i = 0; i < controls.size(); ++i) {
        const PlatRect& frame = controls[i].frame;
        int x = frame.x, y = frame.y;
        bool belowText = false;
        for (const Growth& growth : growths) {
            if (frame.y >= growth.frame.y + growth.frame.height) {
                y += growth.down;
                belowText = true;
            } else if (frame.x >= growth.frame.x + growth.frame.width) {
                x += growth.right;
            }
        }
        if (controls[i].kind == kPlatControlPushButton) {
            int left = 0, right = 0; // what the row's buttons on either side grew
            for (size_t j = 0; j < controls.size(); ++j) {
                if (j != i && controls[j].kind == kPlatControlPushButton &&
                    SameRow(frame, controls[j].frame)) {
                    (controls[j].frame.x < frame.x ? left : right) += grew[j];
                }
            }
            x = KeepsRightMargin(frame, windowWidth) ? frame.x + wider - grew[i] - right : frame.x + left;
        } else if (belowText && frame.x >= windowWidth / 2) {
            x += wider;
        }
        gtk_fixed_move(GTK_FIXED(native->fixed), controls[i].placed, x, y);
        taller = std::max(taller, y - frame.y);
    }
    for (const Growth& growth : growths) {
        taller = std::max(taller, growth.down);
    }
    gtk_widget_set_size_request(native->fixed, std::max(windowWidth + wider, 1),
                                std::max(native->size.height + taller, 1));
}

/* ---- Windows ---- */

gboolean OnDeleteEvent(GtkWidget*, GdkEvent*, gpointer window) {
    // The close box is only a request: the layer's handlers decide, and an unhandled
    // close comes back to us as disposeWindow. A window without a close box cannot be
    // closed by the user at all, whatever a window manager offers.
    PlatWindowInfo info;
    if (gLayer.getWindowInfo(static_cast<WindowRef>(window), &info) && info.hasCloseBox) {
        gLayer.postWindowClose(static_cast<WindowRef>(window));
    }
    return TRUE;
}

// The window's default (or cancel) button, or null.
ControlRef ButtonFor(WindowRef window, bool cancel) {
    PlatControlInfo info;
    for (size_t i = 0; gLayer.getControlInfo(window, i, &info); ++i) {
        if (cancel ? info.isCancel : info.isDefault) {
            return info.control;
        }
    }
    return nullptr;
}

// The push button that has the focus because the user moved it there with the
// keyboard, or null.
ControlRef ButtonFocusedByUser(const NativeWindow* native) {
    if (!native || !native->focusMovedByUser) {
        return nullptr;
    }
    GtkWidget* focus = gtk_window_get_focus(GTK_WINDOW(native->toplevel));
    for (const NativeControl& control : native->controls) {
        if (control.kind == kPlatControlPushButton && control.widget == focus) {
            return control.control;
        }
    }
    return nullptr;
}

bool MovesFocus(guint keyval) {
    switch (keyval) {
    case GDK_KEY_Tab:
    case GDK_KEY_ISO_Left_Tab:
    case GDK_KEY_KP_Tab:
    case GDK_KEY_Left:
    case GDK_KEY_Right:
    case GDK_KEY_Up:
    case GDK_KEY_Down:
        return true;
    default:
        return false;
    }
}

// Return and Enter press the button the user moved the focus to with Tab, else the
// default button wherever the focus is; Escape and Ctrl-. the cancel button. Without
// such a button the key does nothing.
gboolean OnKeyPress(GtkWidget*, GdkEventKey* event, gpointer window) {
    NativeWindow* native = NativeFor(static_cast<WindowRef>(window));
    bool control = (event->state & GDK_CONTROL_MASK) != 0;
    bool isReturn = event->keyval == GDK_KEY_Return || event->keyval == GDK_KEY_KP_Enter ||
                    event->keyval == GDK_KEY_ISO_Enter;
    bool isCancel = event->keyval == GDK_KEY_Escape ||
                    (control && (event->keyval == GDK_KEY_period || event->keyval == GDK_KEY_KP_Decimal));
    if (!isReturn && !isCancel) {
        if (native && MovesFocus(event->keyval)) {
            native->focusMovedByUser = true;
        }
        return FALSE;
    }
    ControlRef button = isReturn ? ButtonFocusedByUser(native) : nullptr;
    if (!button) {
        button = ButtonFor(static_cast<WindowRef>(window), isCancel);
    }
    if (button) {
        gLayer.postControlHit(button);
    }
    return TRUE;
}

// A dialog offers to move, and to close only with a close box: no minimise,
// maximise or resize. Window managers that honour Motif's functions take them from
// here; the title bar is our own (see TitleBar), so none draws buttons of its own.
void OnRealize(GtkWidget* toplevel, gpointer window) {
    PlatWindowInfo info;
    GdkWindow* native = gtk_widget_get_window(toplevel);
    if (!native || !gLayer.getWindowInfo(static_cast<WindowRef>(window), &info)) {
        return;
    }
    gdk_window_set_functions(
        native, static_cast<GdkWMFunction>(GDK_FUNC_MOVE | (info.hasCloseBox ? GDK_FUNC_CLOSE : 0)));
}

// A window manager that minimises anyway (from its menu or a key) would hide a
// window the program waits on: it comes straight back.
gboolean OnWindowState(GtkWidget* toplevel, GdkEventWindowState* event, gpointer) {
    if ((event->changed_mask & GDK_WINDOW_STATE_ICONIFIED) &&
        (event->new_window_state & GDK_WINDOW_STATE_ICONIFIED)) {
        gtk_window_deiconify(GTK_WINDOW(toplevel));
    }
    return FALSE;
}

// The title bar is drawn by GTK, with the title and, for a window with a close box,
// that box alone: window managers that ignore Motif's functions (openbox offers
// minimise whatever they say) honour a window that asks for no decorations at all.
GtkWidget* TitleBar(const PlatWindowInfo& info) {
    GtkWidget* bar = gtk_header_bar_new();
    gtk_header_bar_set_title(GTK_HEADER_BAR(bar), info.title ? info.title : "");
    gtk_header_bar_set_decoration_layout(GTK_HEADER_BAR(bar), ":close");
    gtk_header_bar_set_show_close_button(GTK_HEADER_BAR(bar), info.hasCloseBox);
    gtk_widget_show(bar);
    return bar;
}

gboolean PulseBars(gpointer data) {
    auto* native = static_cast<NativeWindow*>(data);
    for (const NativeControl& control : native->controls) {
        if (control.kind == kPlatControlProgressIndicator) {
            gtk_progress_bar_pulse(GTK_PROGRESS_BAR(control.widget));
        }
    }
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
    for (size_t i = 0; gLayer.getControlInfo(window, i, &info); ++i) {
        if (info.kind == kPlatControlProgressIndicator && info.indeterminate) {
            return true;
        }
    }
    return false;
}

OSStatus CreateNativeWindow(WindowRef window) {
    PlatWindowInfo info;
    if (gDisplayLost) {
        return errInvalidWindowRef; // nothing can be shown any more
    }
    if (!gLayer.getWindowInfo(window, &info)) {
        return paramErr;
    }
    if (NativeFor(window)) {
        return noErr;
    }

    auto owned = std::make_unique<NativeWindow>(NativeWindow{window,
                                                             gtk_window_new(GTK_WINDOW_TOPLEVEL),
                                                             gtk_fixed_new(),
                                                             PlatRect{0, 0, info.width, info.height},
                                                             {},
                                                             0,
                                                             false});
    NativeWindow* native = owned.get();
    GtkWindow* toplevel = GTK_WINDOW(native->toplevel);
    gtk_window_set_title(toplevel, info.title ? info.title : "");
    gtk_window_set_type_hint(toplevel, GDK_WINDOW_TYPE_HINT_DIALOG);
    gtk_window_set_resizable(toplevel, FALSE);
    gtk_window_set_deletable(toplevel, info.hasCloseBox);
    gtk_window_set_titlebar(toplevel, TitleBar(info));
    gtk_window_set_position(toplevel, GTK_WIN_POS_CENTER);
    g_signal_connect(native->toplevel, "delete-event", G_CALLBACK(OnDeleteEvent), window);
    g_signal_connect(native->toplevel, "window-state-event", G_CALLBACK(OnWindowState), nullptr);
    g_signal_connect(native->toplevel, "key-press-event", G_CALLBACK(OnKeyPress), window);
    g_signal_connect_after(native->toplevel, "realize", G_CALLBACK(OnRealize), window);
    gtk_container_add(GTK_CONTAINER(native->toplevel), native->fixed);

    PlatControlInfo control;
    for (size_t i = 0; i < info.controlCount && gLayer.getControlInfo(window, i, &control); ++i) {
        GtkWidget* widget = CreateControlWidget(control);
        if (!widget) {
            continue;
        }
        GtkWidget* placed = control.kind == kPlatControlStaticText ? FrameFor(widget, control.frame) : widget;
        gtk_fixed_put(GTK_FIXED(native->fixed), placed, control.frame.x, control.frame.y);
        native->controls.push_back({control.control, control.kind, control.frame, widget, placed});
        UpdateControl(native->controls.back(), control);
    }
    // A hidden widget measures nothing: the content is shown, the window not yet.
    gtk_widget_show_all(native->fixed);
    Layout(native);
    gWindows[window] = std::move(owned);
    return noErr;
}

void ShowNativeWindow(WindowRef window) {
    NativeWindow* native = NativeFor(window);
    if (!native || gDisplayLost) {
        return;
    }
    Layout(native); // its texts are set by now
    gtk_widget_show_all(native->toplevel);
    if (!native->pulseSource && HasIndeterminateBar(window)) {
        native->pulseSource = g_timeout_add(kPulseIntervalMs, PulseBars, native);
    }
    Flush();
}

void DisposeNativeWindow(WindowRef window) {
    auto it = gWindows.find(window);
    if (it == gWindows.end() || gDisplayLost) {
        return;
    }
    std::unique_ptr<NativeWindow> native = std::move(it->second);
    gWindows.erase(it);
    StopPulse(native.get());
    gtk_widget_destroy(native->toplevel);
    Flush();
}

void ControlChanged(WindowRef window, ControlRef control) {
    NativeWindow* native = NativeFor(window);
    if (!native || gDisplayLost) {
        return;
    }
    PlatControlInfo info;
    for (size_t i = 0; gLayer.getControlInfo(window, i, &info); ++i) {
        if (info.control != control) {
            continue;
        }
        for (const NativeControl& nativeControl : native->controls) {
            if (nativeControl.control == control) {
                UpdateControl(nativeControl, info);
            }
        }
        if (info.kind == kPlatControlStaticText) {
            Layout(native);
        }
        return;
    }
}

/* ---- The loop ---- */

gboolean EndWait(gpointer) {
    return G_SOURCE_REMOVE;
}

// Without a display the loop waits for wake() alone.
void WaitWithoutDisplay(int timeoutMs) {
    struct pollfd wake = {WakeFd(), POLLIN, 0};
    if (poll(&wake, 1, timeoutMs) > 0) {
        uint64_t value;
        (void)!read(WakeFd(), &value, sizeof value);
    }
}

void Pump(int timeoutMs) {
    if (gDisplayLost) {
        AnswerDisplayLoss();
        WaitWithoutDisplay(timeoutMs);
        return;
    }
    if (timeoutMs == 0) {
        g_main_context_iteration(nullptr, FALSE);
        AnswerDisplayLoss();
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
    AnswerDisplayLoss();
}

void Wake() {
    uint64_t one = 1;
    (void)!write(WakeFd(), &one, sizeof one);
    g_main_context_wakeup(nullptr);
}

const PlatBackendOps kGtkBackend = {
    "gtk", CreateNativeWindow, ShowNativeWindow, DisposeNativeWindow, ControlChanged, Pump, Wake,
};

/* ---- The first contact ---- */

// A display server that accepts the connection and never answers would hold the
// first contact for ever: Xlib and Wayland wait for its reply without a limit.
constexpr auto kFirstContactLimit = std::chrono::seconds(3);

// Whether contact(name) is true within the limit. It runs on a thread of its own,
// left blocked where it is when the server never answers.
bool AnswersInTime(bool (*contact)(const char*), const char* name) {
    struct Probe {
        std::mutex lock;
        std::condition_variable finished;
        bool done = false, answered = false;
    };
    auto probe = std::make_shared<Probe>();
    try {
        std::thread([probe, contact, display = std::string(name)] {
            bool answered = contact(display.c_str());
            std::lock_guard<std::mutex> hold(probe->lock);
            probe->done = true;
            probe->answered = answered;
            probe->finished.notify_all();
        }).detach();
    } catch (const std::system_error&) {
        return false;
    }
    std::unique_lock<std::mutex> hold(probe->lock);
    probe->finished.wait_for(hold, kFirstContactLimit, [&] { return probe->done; });
    return probe->answered;
}

bool XServerAnswers(const char* name) {
    Display* display = XOpenDisplay(name);
    if (!display) {
        return false;
    }
    XCloseDisplay(display);
    return true;
}

bool CompositorAnswers(const char* name) {
    wl_display* display = wl_display_connect(name);
    if (!display) {
        return false;
    }
    bool answered = wl_display_roundtrip(display) >= 0;
    wl_display_disconnect(display);
    return answered;
}

bool IsSet(const char* variable) {
    const char* value = getenv(variable);
    return value && value[0] != '\0';
}

// GDK's backends for the displays named in the environment that answer in time, as
// GDK's list of allowed backends: empty when none does.
std::string AnsweringBackends() {
    std::string backends;
    if (IsSet("WAYLAND_DISPLAY") && AnswersInTime(CompositorAnswers, getenv("WAYLAND_DISPLAY"))) {
        backends = "wayland";
    }
    if (IsSet("DISPLAY") && AnswersInTime(XServerAnswers, getenv("DISPLAY"))) {
        backends += backends.empty() ? "x11" : ",x11";
    }
    return backends;
}

// GDK ends the process when its display goes away; the program must go on. For X,
// Xlib's fatal I/O error is ours; for Wayland, a watch on the compositor's socket
// that runs before GDK's own event source looks at it.
void WatchForDisplayLoss(GdkDisplay* display) {
    if (GDK_IS_X11_DISPLAY(display)) {
        XSetIOErrorHandler(OnDisplayLost);
        XSetIOErrorExitHandler(gdk_x11_display_get_xdisplay(display), OnDisplayLostExit, nullptr);
    } else if (GDK_IS_WAYLAND_DISPLAY(display)) {
        int fd = wl_display_get_fd(gdk_wayland_display_get_wl_display(display));
        g_unix_fd_add_full(G_PRIORITY_HIGH, fd, static_cast<GIOCondition>(G_IO_HUP | G_IO_ERR),
                           OnCompositorGone, nullptr, nullptr);
    }
}

} // namespace

extern "C" __attribute__((visibility("default"))) const PlatBackendOps* PlatGtkBackend(void) {
    if (!ResolveLayer()) {
        return nullptr;
    }
    std::string backends = AnsweringBackends();
    if (backends.empty()) {
        return nullptr;
    }
    gdk_set_allowed_backends(backends.c_str());
    if (!gtk_init_check(nullptr, nullptr)) {
        return nullptr;
    }
    if (GdkDisplay* display = gdk_display_get_default()) {
        WatchForDisplayLoss(display);
    }
    return &kGtkBackend;
}
