// SPDX-License-Identifier: MIT
// Text drawing of the platform layer with Pango on the current image context's Cairo context.
#include "KPImage/Platform/NSStringDrawing.h"

#include "KPImage/Platform/UIGraphics.h"

#include <cairo.h>
#include <glib.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>

namespace kp {

namespace {
struct GObjectUnref {
    void operator()(void* object) const { g_object_unref(object); }
};
struct FontDescriptionFree {
    void operator()(PangoFontDescription* d) const { pango_font_description_free(d); }
};
struct GFree {
    void operator()(gchar* s) const { g_free(s); }
};
// One font map for the process, kept for its whole life: fonts are looked up once, and what fontconfig
// caches stays reachable. Pango font maps are not thread-safe, so text drawing is serialised on it.
std::mutex& fontMapMutex() {
    static std::mutex mutex;
    return mutex;
}
PangoFontMap* sharedFontMap() {
    static PangoFontMap* map = pango_cairo_font_map_new();
    return map;
}

} // namespace

void NSStringDrawInRect(const std::string& text, CGRect rect, const NSStringAttributes& attributes) {
    const CGContextRef context = UIGraphicsGetCurrentContext();
    if (!context || context->cairo() == nullptr) {
        return;
    }
    const UIFont font = attributes.font.value_or(UIFont::systemFontOfSize(12));
    const CGFloat size = font.pointSize();
    rect = CGRectStandardize(rect);
    if (!(size > 0) || !std::isfinite(size) || size > 10000 || CGRectIsEmpty(rect) ||
        !std::isfinite(rect.origin.x) || !std::isfinite(rect.origin.y) || !std::isfinite(rect.size.width) ||
        !std::isfinite(rect.size.height)) {
        return;
    }
    cairo_t* cr = context->cairo();
    std::lock_guard lock(fontMapMutex());
    std::unique_ptr<gchar, GFree> valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    std::unique_ptr<PangoContext, GObjectUnref> pango(pango_font_map_create_context(sharedFontMap()));
    pango_cairo_update_context(cr, pango.get());
    std::unique_ptr<PangoLayout, GObjectUnref> layout(pango_layout_new(pango.get()));
    std::unique_ptr<PangoFontDescription, FontDescriptionFree> description(
        pango_font_description_from_string(font.fontDescription().c_str()));
    // One point is one device unit in an image context of scale 1.
    pango_font_description_set_absolute_size(description.get(), size * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), description.get());
    const double wrapWidth = std::min(rect.size.width, 1.0e6);
    pango_layout_set_width(layout.get(), static_cast<int>(wrapWidth * PANGO_SCALE));
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
    pango_layout_set_text(layout.get(), valid.get(), -1);

    // The context's fill colour plays no part: without a foreground colour text is black.
    const CGColor colour = attributes.foregroundColor.value_or(UIColor::blackColor()).CGColor();
    cairo_save(cr);
    cairo_rectangle(cr, rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
    cairo_clip(cr);
    cairo_set_source_rgba(cr, colour.red, colour.green, colour.blue, colour.alpha);
    // A positive baseline offset raises the glyphs.
    cairo_move_to(cr, rect.origin.x, rect.origin.y - static_cast<double>(attributes.baselineOffset));
    pango_cairo_show_layout(cr, layout.get());
    cairo_restore(cr);
}

} // namespace kp
