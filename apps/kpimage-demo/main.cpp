// SPDX-License-Identifier: MIT
// kpimage-demo: a window showing a camera preview with a progress circle that counts the seconds.
#include <KPImage/KPImage.h>
#include <KPImageGtk/KPGtkViewHost.h>

#include <gtk/gtk.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

// The window's root view: the preview fills it, the circle sits in the bottom-right corner.
class DemoView : public kp::UIView {
public:
    DemoView(kp::CGRect frame, std::shared_ptr<kp::AVCaptureVideoPreviewLayer> preview,
             std::shared_ptr<kp::KPProgressCircleView> circle)
        : UIView(frame), _preview(std::move(preview)), _circle(std::move(circle)) {
        setBackgroundColor(kp::UIColor::blackColor());
        layer()->addSublayer(_preview);
        addSubview(_circle);
        layout();
    }
    void setBounds(kp::CGRect bounds) override {
        UIView::setBounds(bounds);
        layout();
    }

private:
    void layout() {
        const kp::CGRect b = bounds();
        _preview->setFrame(b);
        const kp::CGFloat side = std::min<kp::CGFloat>(140, std::min(b.size.width, b.size.height) / 2);
        _circle->setFrame(kp::CGRectMake(b.size.width - side - 16, b.size.height - side - 16, side, side));
    }
    std::shared_ptr<kp::AVCaptureVideoPreviewLayer> _preview;
    std::shared_ptr<kp::KPProgressCircleView> _circle;
};

int usage(const char* message) {
    std::fprintf(stderr, "kpimage-demo: %s\nusage: kpimage-demo [--camera ID] [--seconds S] [--size W,H]\n", message);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    std::string cameraID = "sample:front";
    double seconds = 0;
    int width = 640, height = 400;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (i + 1 >= argc) {
            return usage(("option " + a + " needs a value").c_str());
        }
        const char* v = argv[++i];
        if (a == "--camera") {
            cameraID = v;
        } else if (a == "--seconds") {
            char* end = nullptr;
            seconds = std::strtod(v, &end);
            if (end == v || *end != '\0' || !(seconds >= 0)) {
                return usage("--seconds must be a non-negative number");
            }
        } else if (a == "--size") {
            if (std::sscanf(v, "%d,%d", &width, &height) != 2 || width < 64 || height < 64 || width > 8192 ||
                height > 8192) {
                return usage("--size must be W,H (64 to 8192)");
            }
        } else {
            return usage(("unknown option " + a).c_str());
        }
    }

    if (!gtk_init_check()) {
        std::fprintf(stderr, "kpimage-demo: cannot open a display (set DISPLAY or WAYLAND_DISPLAY to a running "
                             "display server)\n");
        return 1;
    }
    kp::KPGtkAttachMainRunLoop();

    auto device = kp::AVCaptureDevice::deviceWithUniqueID(cameraID);
    if (!device) {
        std::fprintf(stderr, "kpimage-demo: no camera %s (see kpimage devices)\n", cameraID.c_str());
        return 1;
    }
    auto session = kp::AVCaptureSession::create();
    session->setSessionPreset(kp::AVCaptureSessionPreset640x480);
    session->addInput(kp::AVCaptureDeviceInput::deviceInputWithDevice(device));
    auto preview = kp::AVCaptureVideoPreviewLayer::layerWithSession(session);
    preview->setVideoGravity(kp::AVLayerVideoGravityResizeAspectFill);

    auto circle = kp::KPProgressCircleView::initWithFrame(kp::CGRectMake(0, 0, 140, 140));
    circle->setMaximumValue(60);
    circle->setBorderSize(4);
    circle->setBorderOffsetMargin(4);
    circle->setInterierOffsetMargin(30);
    circle->setCenterSize(12);
    circle->setTintColor(kp::UIColor::colorWithWhite(0, 0.5));

    auto root = std::make_shared<DemoView>(kp::CGRectMake(0, 0, width, height), preview, circle);
    GtkWidget* window = gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(window), "KPImage demo");
    gtk_window_set_default_size(GTK_WINDOW(window), width, height);
    gtk_window_set_child(GTK_WINDOW(window), kp::KPGtkViewHostNew(root));

    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_signal_connect_swapped(window, "close-request", G_CALLBACK(+[](GMainLoop* l) {
                                 g_main_loop_quit(l);
                                 return FALSE;
                             }),
                             loop);
    if (seconds > 0) {
        g_timeout_add(static_cast<guint>(seconds * 1000), +[](gpointer l) {
            g_main_loop_quit(static_cast<GMainLoop*>(l));
            return G_SOURCE_REMOVE;
        }, loop);
    }

    int elapsed = 0;
    auto timer = kp::NSTimer::scheduledTimerWithTimeInterval(1.0, true, [&](kp::NSTimer&) {
        ++elapsed;
        circle->setValue(elapsed % 60 == 0 ? 60 : elapsed % 60);
    });
    session->startRunning();
    gtk_window_present(GTK_WINDOW(window));
    std::printf("{\"camera\":\"%s\",\"width\":%d,\"height\":%d}\n", cameraID.c_str(), width, height);
    std::fflush(stdout);
    g_main_loop_run(loop);

    timer->invalidate();
    // The circle's step worker must be over before the process's queues go away.
    circle->stopAnimating();
    while (circle->animating()) {
        kp::NSThread::sleepForTimeInterval(0.001);
    }
    session->stopRunning();
    gtk_window_destroy(GTK_WINDOW(window));
    g_main_loop_unref(loop);
    return 0;
}
