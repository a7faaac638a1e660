// SPDX-License-Identifier: MIT
// GTK 4 host of a view tree: a drawing area rendering the tree with the layer renderer, and the main run loop
// pumped from GLib.
#include "KPImageGtk/KPGtkViewHost.h"

#include <KPImage/Platform/CARenderer.h>
#include <KPImage/Platform/NSRunLoop.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

namespace kp {

namespace {

constexpr const char* kHostKey = "kpimage-view-host";

struct Host {
    std::shared_ptr<UIView> root;
    GtkWidget* widget = nullptr;
    guint tick = 0;
};

// The hosts alive now; GTK thread only.
std::vector<Host*>& hosts() {
    static std::vector<Host*> all;
    return all;
}

// A GLib source for the main run loop: ready when the wake-up descriptor is readable (tasks are pending) or a
// timer is due. prepare runs at every iteration of GLib's loop, so timers scheduled from GTK handlers count at
// once.
struct RunLoopSource {
    GSource base;
    gpointer wakeupTag;
};

std::optional<double> secondsToNextTimer() { return NSRunLoop::mainRunLoop().timeUntilNextTimer(); }

gboolean prepareSource(GSource*, gint* timeout) {
    const auto due = secondsToNextTimer();
    if (!due) {
        *timeout = -1;
        return FALSE;
    }
    if (*due <= 0) {
        *timeout = 0;
        return TRUE;
    }
    *timeout = static_cast<gint>(std::clamp(std::ceil(*due * 1000.0), 1.0, 3600000.0));
    return FALSE;
}

gboolean checkSource(GSource* source) {
    auto* s = reinterpret_cast<RunLoopSource*>(source);
    if ((g_source_query_unix_fd(source, s->wakeupTag) & G_IO_IN) != 0) {
        return TRUE;
    }
    const auto due = secondsToNextTimer();
    return due && *due <= 0;
}

gboolean dispatchSource(GSource*, GSourceFunc, gpointer) {
    NSRunLoop::mainRunLoop().pump();
    return G_SOURCE_CONTINUE;
}

GSourceFuncs runLoopSourceFuncs = {prepareSource, checkSource, dispatchSource, nullptr, nullptr, nullptr};

void redrawAll() {
    for (Host* h : hosts()) {
        gtk_widget_queue_draw(h->widget);
    }
}

gboolean onTick(GtkWidget* widget, GdkFrameClock*, gpointer data) {
    auto* host = static_cast<Host*>(data);
    gtk_widget_queue_draw(widget);
    if (!host->root->layer()->hasRunningAnimationsInTree()) {
        host->tick = 0;
        return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
}

void draw(GtkDrawingArea* area, cairo_t* cr, int, int, gpointer data) {
    auto* host = static_cast<Host*>(data);
    const CGFloat scale = gtk_widget_get_scale_factor(GTK_WIDGET(area));
    CARenderLayerTree(cr, *host->root->layer(), scale);
    if (host->tick == 0 && host->root->layer()->hasRunningAnimationsInTree()) {
        host->tick = gtk_widget_add_tick_callback(GTK_WIDGET(area), onTick, host, nullptr);
    }
}

void resized(GtkDrawingArea*, int width, int height, gpointer data) {
    auto* host = static_cast<Host*>(data);
    CGRect bounds = host->root->bounds();
    bounds.size = CGSizeMake(width, height);
    host->root->setBounds(bounds);
}

void destroyHost(gpointer data) {
    auto* host = static_cast<Host*>(data);
    std::erase(hosts(), host);
    delete host;
}

} // namespace

void KPGtkAttachMainRunLoop() {
    static bool attached = false;
    if (attached) {
        return;
    }
    attached = true;
    GSource* source = g_source_new(&runLoopSourceFuncs, sizeof(RunLoopSource));
    auto* s = reinterpret_cast<RunLoopSource*>(source);
    s->wakeupTag = g_source_add_unix_fd(source, NSRunLoop::mainRunLoop().wakeupFileDescriptor(), G_IO_IN);
    g_source_set_name(source, "KPImage main run loop");
    g_source_attach(source, nullptr); // the default main context, for the process's life
    g_source_unref(source);
    CALayer::setRenderRequestHandler(redrawAll);
}

GtkWidget* KPGtkViewHostNew(std::shared_ptr<UIView> root) {
    if (!root) {
        return nullptr;
    }
    KPGtkAttachMainRunLoop();
    GtkWidget* area = gtk_drawing_area_new();
    auto* host = new Host{std::move(root), area, 0};
    hosts().push_back(host);
    const CGRect frame = host->root->frame();
    gtk_drawing_area_set_content_width(GTK_DRAWING_AREA(area), static_cast<int>(std::max(1.0, frame.size.width)));
    gtk_drawing_area_set_content_height(GTK_DRAWING_AREA(area), static_cast<int>(std::max(1.0, frame.size.height)));
    gtk_drawing_area_set_draw_func(GTK_DRAWING_AREA(area), draw, host, nullptr);
    g_signal_connect(area, "resize", G_CALLBACK(resized), host);
    g_object_set_data_full(G_OBJECT(area), kHostKey, host, destroyHost);
    return area;
}

std::shared_ptr<UIView> KPGtkViewHostGetRoot(GtkWidget* widget) {
    if (widget == nullptr) {
        return nullptr;
    }
    auto* host = static_cast<Host*>(g_object_get_data(G_OBJECT(widget), kHostKey));
    return host != nullptr ? host->root : nullptr;
}

} // namespace kp
