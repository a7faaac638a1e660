// SPDX-License-Identifier: MIT
// Rendering one 1280 x 720 BGRA camera frame through the preview layer with the capture overlays (centre box,
// face box, code outline) into a 1280 x 720 surface, against a plain Cairo paint of the same frame.
#include <KPImage/KPImage.h>

#include "BenchReport.h"

#include <benchmark/benchmark.h>
#include <cairo.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kWidth = 1280, kHeight = 720;

kp::CVPixelBufferRef makeFrame() {
    kp::CVPixelBufferRef buffer;
    kp::CVPixelBufferCreate(kWidth, kHeight, kp::kCVPixelFormatType_32BGRA, &buffer);
    kp::CVPixelBufferLockBaseAddress(buffer, 0);
    auto* base = static_cast<uint8_t*>(kp::CVPixelBufferGetBaseAddress(buffer));
    const size_t stride = kp::CVPixelBufferGetBytesPerRow(buffer);
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            uint8_t* p = base + y * stride + x * 4;
            p[0] = uint8_t(x), p[1] = uint8_t(y), p[2] = uint8_t(x ^ y), p[3] = 255;
        }
    }
    kp::CVPixelBufferUnlockBaseAddress(buffer, 0);
    return buffer;
}

struct Surface {
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kWidth, kHeight);
    cairo_t* cr = cairo_create(surface);
    ~Surface() {
        cairo_destroy(cr);
        cairo_surface_destroy(surface);
    }
};

void BM_PreviewLayer(benchmark::State& state, bool overlays) {
    kp::CMSampleBufferRef frame;
    kp::CMSampleBufferCreateForImageBuffer(makeFrame(), true, {}, &frame);
    auto root = kp::CALayer::layer();
    root->setFrame(kp::CGRectMake(0, 0, kWidth, kHeight));
    auto preview = kp::AVCaptureVideoPreviewLayer::layerWithSession(nullptr);
    preview->setFrame(root->bounds());
    preview->setBackgroundColor(kp::UIColor::blackColor().CGColor());
    preview->setVideoGravity(kp::AVLayerVideoGravityResizeAspectFill);
    preview->enqueueSampleBuffer(frame);
    root->addSublayer(preview);
    auto centre = kp::CAShapeLayer::layer();
    centre->setFrame(kp::CGRectInset(preview->frame(), 30, 50));
    centre->setBorderWidth(3);
    centre->setBorderColor(kp::UIColor::redColor().CGColor());
    preview->addSublayer(centre);
    auto face = kp::CALayer::layer();
    face->setFrame(kp::CGRectMake(500, 200, 240, 260));
    face->setBorderWidth(1);
    face->setBorderColor(kp::CGColor{0.88, 0.79, 0.05, 1});
    preview->addSublayer(face);
    auto code = kp::CAShapeLayer::layer();
    auto path = kp::CGPathCreateMutable();
    kp::CGPathMoveToPoint(path, nullptr, 800, 400);
    kp::CGPathAddLineToPoint(path, nullptr, 1100, 420);
    kp::CGPathMoveToPoint(path, nullptr, 800, 400);
    kp::CGPathAddLineToPoint(path, nullptr, 790, 600);
    kp::CGPathMoveToPoint(path, nullptr, 790, 600);
    kp::CGPathAddLineToPoint(path, nullptr, 1090, 620);
    kp::CGPathMoveToPoint(path, nullptr, 1100, 420);
    kp::CGPathAddLineToPoint(path, nullptr, 1090, 620);
    code->setPath(path);
    code->setLineWidth(3);
    code->setStrokeColor(kp::UIColor::greenColor().CGColor());
    code->setLineCap(kp::kCALineCapSquare);
    preview->addSublayer(code);
    for (const auto& overlay : preview->sublayers()) {
        overlay->setHidden(!overlays);
    }
    Surface target;
    for (auto _ : state) {
        kp::CARenderLayerTree(target.cr, *root, 1);
        cairo_surface_flush(target.surface);
        benchmark::DoNotOptimize(cairo_image_surface_get_data(target.surface));
    }
}

// The peer: the frame painted with Cairo, scaled to the surface (here 1:1), as ARGB32 (alpha honoured) or as
// RGB24 (alpha ignored, as the preview layer treats camera frames).
void BM_PlainCairoPaint(benchmark::State& state, cairo_format_t format) {
    auto frame = makeFrame();
    kp::CVPixelBufferLockBaseAddress(frame, kp::kCVPixelBufferLock_ReadOnly);
    cairo_surface_t* source = cairo_image_surface_create_for_data(
        static_cast<unsigned char*>(kp::CVPixelBufferGetBaseAddress(frame)), format, kWidth, kHeight,
        static_cast<int>(kp::CVPixelBufferGetBytesPerRow(frame)));
    Surface target;
    for (auto _ : state) {
        cairo_save(target.cr);
        cairo_scale(target.cr, double(kWidth) / kWidth, double(kHeight) / kHeight);
        cairo_set_source_surface(target.cr, source, 0, 0);
        cairo_pattern_set_filter(cairo_get_source(target.cr), CAIRO_FILTER_BILINEAR);
        cairo_paint(target.cr);
        cairo_restore(target.cr);
        cairo_surface_flush(target.surface);
        benchmark::DoNotOptimize(cairo_image_surface_get_data(target.surface));
    }
    cairo_surface_destroy(source);
    kp::CVPixelBufferUnlockBaseAddress(frame, kp::kCVPixelBufferLock_ReadOnly);
}

// The preview layer with its overlays against the plain paints (median CPU times per frame).
void compare(const kpbench::Times& median) {
    const double ours = kpbench::timeOf(median, "PreviewLayerWithOverlays");
    std::printf("\nCPU time per frame (median):\n");
    for (const auto& [name, t] : median) {
        std::printf("  %-28s %9.1f us\n", name.c_str(), t * 1e6);
    }
    for (const char* peer : {"PlainCairoPaint/ARGB32", "PlainCairoPaint/RGB24"}) {
        if (const double paint = kpbench::timeOf(median, peer); paint > 0) {
            std::printf("  ratio to %-22s %6.2f  (preview layer with overlays / plain paint; target <= 1.5)\n",
                        peer, ours / paint);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("PreviewLayerWithOverlays", BM_PreviewLayer, true)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("PreviewLayerAlone", BM_PreviewLayer, false)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("PlainCairoPaint/ARGB32", BM_PlainCairoPaint, CAIRO_FORMAT_ARGB32)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("PlainCairoPaint/RGB24", BM_PlainCairoPaint, CAIRO_FORMAT_RGB24)
        ->Unit(benchmark::kMicrosecond);
    kpbench::TimesReporter reporter(kpbench::TimesReporter::Clock::Cpu, compare);
    return kpbench::runBenchmarks(argc, argv, reporter);
}
