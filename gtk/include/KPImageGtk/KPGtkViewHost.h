// SPDX-License-Identifier: MIT
// GTK 4 host of a view tree: a widget that shows a UIView tree in a real window, and the bridge that runs the
// main run loop from GLib's main loop.
#pragma once

#include <KPImage/Platform/UIView.h>

#include <gtk/gtk.h>

#include <memory>

namespace kp {

/// Drives the main run loop from GLib's default main context (a GLib source): the main queue's tasks run when
/// the run loop's wake-up descriptor becomes readable, its timers when they are due (timers scheduled on the GTK
/// thread are seen at once; one scheduled from another thread is seen when GLib's loop next wakes). Call on the
/// GTK thread before the GLib loop runs; later calls do nothing. That thread is then the platform's main thread.
void KPGtkAttachMainRunLoop();

/// A widget showing the tree of root. It redraws whenever a layer of any hosted tree changes (setNeedsDisplay,
/// new preview frames, property changes) and while animations run, and passes its size to root's setBounds.
/// The widget holds root until the widget is destroyed. Returns a new floating widget; GTK thread only.
GtkWidget* KPGtkViewHostNew(std::shared_ptr<UIView> root);

/// The root view a host widget shows; null for another widget.
std::shared_ptr<UIView> KPGtkViewHostGetRoot(GtkWidget* widget);

} // namespace kp
