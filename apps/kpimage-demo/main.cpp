// SPDX-License-Identifier: MIT
// kpimage-demo: a GTK 4 window around the capture view: live preview with the centre box, a progress circle that
// counts how long the head has stayed centred before an automatic capture, a side panel with the last picture
// (face annotated, focus, focus score, brightness), and buttons and keys for capture, camera switch, torch and
// video.
#include <KPImage/KPImage.h>
#include <KPImageGtk/KPGtkViewHost.h>

#include <gtk/gtk.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

// How long the head must stay centred before the demo takes a picture by itself.
constexpr double kAutoCaptureSeconds = 1.5;
// How often the head-centred verdict is polled on the main thread.
constexpr double kPollSeconds = 0.1;
// Width of the side panel in points.
constexpr int kPanelWidth = 300;

struct Options {
    enum class Cameras { platform, sample, file, webcam };
    Cameras cameras = Cameras::platform;
    std::string file;          // --file
    std::string webcam;        // --camera
    bool front = true;         // --position
    double seconds = 0;        // --seconds: quit after this long (0: run until closed)
    int width = 960, height = 540;
};

int usage(const char* message, FILE* out = stderr) {
    std::fprintf(out,
                 "kpimage-demo: %s\n"
                 "usage: kpimage-demo [--sample | --file VIDEO | --camera /dev/videoN] [--position front|back]\n"
                 "                    [--size W,H] [--seconds S]\n"
                 "  --sample          the built-in sample cameras (front and back), also on a machine with webcams\n"
                 "  --file VIDEO      a video file played as the front camera (looping)\n"
                 "  --camera NODE     this webcam as the front camera, the other webcams as back cameras\n"
                 "  --position P      the camera to start with (default front: the centre box shows for it)\n"
                 "keys: Space capture, S switch camera, T torch, V video on/off, Ctrl+Q quit\n",
                 message);
    return out == stderr ? 1 : 0;
}

std::optional<Options> parse(int argc, char** argv, int& status) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            status = usage("a window around the capture view", stdout);
            return std::nullopt;
        }
        if (a == "--sample") {
            o.cameras = Options::Cameras::sample;
            continue;
        }
        if (a != "--file" && a != "--camera" && a != "--position" && a != "--seconds" && a != "--size") {
            status = usage(("unknown option " + a).c_str());
            return std::nullopt;
        }
        if (i + 1 >= argc) {
            status = usage(("option " + a + " needs a value").c_str());
            return std::nullopt;
        }
        const std::string v = argv[++i];
        if (a == "--file") {
            o.cameras = Options::Cameras::file;
            o.file = v;
        } else if (a == "--camera") {
            o.cameras = Options::Cameras::webcam;
            o.webcam = v;
        } else if (a == "--position") {
            if (v != "front" && v != "back") {
                status = usage("--position must be front or back");
                return std::nullopt;
            }
            o.front = v == "front";
        } else if (a == "--seconds") {
            char* end = nullptr;
            o.seconds = std::strtod(v.c_str(), &end);
            if (end == v.c_str() || *end != '\0' || !(o.seconds >= 0) || o.seconds > 86400) {
                status = usage("--seconds must be a number from 0 to 86400");
                return std::nullopt;
            }
        } else { // --size
            if (std::sscanf(v.c_str(), "%d,%d", &o.width, &o.height) != 2 || o.width < 480 || o.height < 240 ||
                o.width > 8192 || o.height > 8192) {
                status = usage("--size must be W,H (480,240 to 8192,8192)");
                return std::nullopt;
            }
        }
    }
    return o;
}

// Makes the cameras of the choice the ones the capture view's engine finds. False (with a message) when the
// choice cannot be served.
bool prepareCameras(const Options& o) {
    kp::CaptureDeviceDiscovery discovery;
    switch (o.cameras) {
    case Options::Cameras::platform: break;
    case Options::Cameras::sample:
        discovery.v4l2 = false;
        discovery.alwaysOfferSampleCameras = true;
        break;
    case Options::Cameras::file: {
        discovery.v4l2 = false;
        discovery.sampleCameras = false;
        kp::AVCaptureDevice::setDiscovery(discovery);
        kp::NSErrorRef error;
        if (!kp::AVCaptureDevice::addMediaFileCamera(o.file, kp::AVCaptureDevicePositionFront, &error)) {
            std::fprintf(stderr, "kpimage-demo: cannot play %s: %s\n", o.file.c_str(),
                         error ? error->localizedDescription().c_str() : "no video stream");
            return false;
        }
        return true;
    }
    case Options::Cameras::webcam: {
        discovery.sampleCameras = false;
        kp::AVCaptureDevice::setDiscovery(discovery);
        bool found = false;
        for (const auto& d : kp::AVCaptureDevice::devices()) {
            const bool chosen = d->uniqueID() == o.webcam;
            found = found || chosen;
            kp::AVCaptureDevice::assignPosition(d->uniqueID(), chosen ? kp::AVCaptureDevicePositionFront
                                                                      : kp::AVCaptureDevicePositionBack);
        }
        if (!found) {
            std::fprintf(stderr, "kpimage-demo: no webcam %s (see kpimage devices)\n", o.webcam.c_str());
        }
        return found;
    }
    }
    kp::AVCaptureDevice::setDiscovery(discovery);
    if (kp::AVCaptureDevice::devices().empty()) {
        std::fprintf(stderr, "kpimage-demo: no camera found\n");
        return false;
    }
    return true;
}

// A desktop camera delivers upright frames: report the landscape orientation in which the still-picture
// converter keeps the active camera's picture as delivered.
void matchOrientation(bool backCamera) {
    kp::UIDevice::currentDevice().setOrientation(backCamera ? kp::UIDeviceOrientationLandscapeLeft
                                                            : kp::UIDeviceOrientationLandscapeRight);
}

// The window's view tree: the capture view fills it, the progress circle sits in the bottom-right corner.
class DemoRoot : public kp::UIView {
public:
    DemoRoot(kp::CGRect frame, std::shared_ptr<kp::SimpleCaptureView> capture,
             std::shared_ptr<kp::KPProgressCircleView> circle)
        : UIView(frame), _capture(std::move(capture)), _circle(std::move(circle)) {
        setBackgroundColor(kp::UIColor::blackColor());
    }
    // Called once the view is in a shared pointer.
    void attach() {
        addSubview(_capture);
        addSubview(_circle);
    }
    /// Runs once, at the first layout (the capture view shows its preview only once it has a size).
    std::function<void()> onFirstLayout;

protected:
    bool drawsContent() const override { return false; } // only a background and subviews

public:

    void setBounds(kp::CGRect b) override {
        UIView::setBounds(b);
        const kp::CGRect local = kp::CGRectMake(0, 0, b.size.width, b.size.height);
        const auto previous = _capture->vwPreview();
        _capture->setFrame(local);
        // A new size gives the capture view a new, empty preview subview; while video runs, the demo moves the
        // picture into it itself rather than restarting the camera.
        if (_capture->videoRunning() && _capture->vwPreview() && _capture->vwPreview() != previous) {
            const auto& layer = _capture->videoHelper()->previewLayer();
            _capture->vwPreview()->layer()->setMasksToBounds(false);
            layer->setFrame(_capture->vwPreview()->layer()->bounds());
            _capture->vwPreview()->layer()->insertSublayer(layer, 0);
        }
        const kp::CGFloat side = std::min<kp::CGFloat>(120, std::min(b.size.width, b.size.height) / 3);
        _circle->setFrame(kp::CGRectMake(b.size.width - side - 16, b.size.height - side - 16, side, side));
        if (onFirstLayout && b.size.width > 0 && b.size.height > 0) {
            auto first = std::move(onFirstLayout);
            onFirstLayout = nullptr;
            first();
        }
    }

private:
    std::shared_ptr<kp::SimpleCaptureView> _capture;
    std::shared_ptr<kp::KPProgressCircleView> _circle;
};

// The results of one captured picture, made off the main thread.
struct Analysis {
    int width = 0, height = 0;
    int32_t focus = 0, focusScore = 0, brightness = 0;
    kp::FaceFeatures face;
    std::vector<uint8_t> annotatedPng;
};

Analysis analyse(const kp::UIImage& picture) {
    Analysis a;
    if (const auto& bitmap = picture.CGImage()) {
        a.width = static_cast<int>(bitmap->width());
        a.height = static_cast<int>(bitmap->height());
    }
    a.focus = picture.calculateFocus();
    a.focusScore = picture.calculateFocusScore(1, 1, 10);
    a.brightness = picture.calculateBrightness();
    a.face = picture.getFaceFeaturesWithAccuracy(1);
    std::optional<kp::UIImage> annotated = picture;
    if (!kp::CGRectIsEmpty(a.face.faceBounds)) {
        annotated = picture.drawFacialLocationsLeftEye(a.face.leftEyePosition, a.face.rightEyePosition,
                                                       a.face.mouthPosition, a.face.faceBounds);
    }
    if (annotated) {
        // The panel's size: the picture then asks for no more room than the panel has.
        annotated = annotated->imageByScalingProportionallyToSize(
            kp::CGSizeMake(kPanelWidth - 16, (kPanelWidth - 16) * 3 / 4));
    }
    if (annotated) {
        if (auto png = kp::UIImagePNGRepresentation(*annotated)) {
            a.annotatedPng = std::move(*png);
        }
    }
    return a;
}

class Demo {
public:
    Demo(const Options& options, GMainLoop* loop) : _options(options), _loop(loop) {}

    void build() {
        // No size yet: the window's first layout is the size change that makes the preview subview.
        _capture = kp::SimpleCaptureView::initWithFrame(kp::CGRectZero);
        _circle = kp::KPProgressCircleView::initWithFrame(kp::CGRectMake(0, 0, 120, 120));
        _circle->setMaximumValue(100);
        _circle->setBorderSize(3);
        _circle->setBorderOffsetMargin(3);
        _circle->setInterierOffsetMargin(24);
        _circle->setCenterSize(8);
        // Blue and white, so that the only green on screen is the centre box's.
        _circle->setTrackColor(kp::UIColor::colorWithRed(0.25, 0.55, 1.0, 1.0));
        _circle->setBorderColor(kp::UIColor::whiteColor());
        _circle->setTintColor(kp::UIColor::colorWithWhite(0, 0.45));
        // The host asks for the root's frame as its smallest size: a small one lets the window shrink; the
        // window's default size makes it larger at once.
        _root = std::make_shared<DemoRoot>(kp::CGRectMake(0, 0, 320, 240), _capture, _circle);
        _root->attach();
        // Not inside GTK's layout: starting changes labels, which would ask for a new layout in the middle of one.
        _root->onFirstLayout = [this] {
            g_idle_add_once(+[](gpointer d) { static_cast<Demo*>(d)->startCamera(); }, this);
        };

        _window = gtk_window_new();
        gtk_window_set_title(GTK_WINDOW(_window), "KPImage demo");
        gtk_window_set_default_size(GTK_WINDOW(_window), _options.width, _options.height);

        GtkWidget* outer = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
        GtkWidget* toolbar = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
        gtk_widget_set_margin_start(toolbar, 6);
        gtk_widget_set_margin_end(toolbar, 6);
        gtk_widget_set_margin_top(toolbar, 6);
        gtk_widget_set_margin_bottom(toolbar, 6);
        addButton(toolbar, "Capture (Space)", [](Demo* d) { d->capture(false); });
        addButton(toolbar, "Switch camera (S)", [](Demo* d) { d->switchCamera(); });
        addButton(toolbar, "Torch (T)", [](Demo* d) { d->toggleTorch(); });
        addButton(toolbar, "Video on/off (V)", [](Demo* d) { d->toggleVideo(); });
        _status = gtk_label_new("");
        gtk_widget_set_hexpand(_status, TRUE);
        gtk_label_set_xalign(GTK_LABEL(_status), 1.0F);
        gtk_box_append(GTK_BOX(toolbar), _status);
        gtk_box_append(GTK_BOX(outer), toolbar);

        GtkWidget* body = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
        gtk_widget_set_vexpand(body, TRUE);
        GtkWidget* host = kp::KPGtkViewHostNew(_root);
        gtk_widget_set_hexpand(host, TRUE);
        gtk_widget_set_vexpand(host, TRUE);
        gtk_box_append(GTK_BOX(body), host);

        GtkWidget* panel = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
        gtk_widget_set_size_request(panel, kPanelWidth, -1);
        gtk_widget_set_margin_start(panel, 8);
        gtk_widget_set_margin_end(panel, 8);
        gtk_widget_set_margin_top(panel, 8);
        GtkWidget* title = gtk_label_new("Last picture");
        gtk_label_set_xalign(GTK_LABEL(title), 0);
        gtk_box_append(GTK_BOX(panel), title);
        _picture = gtk_picture_new();
        gtk_widget_set_size_request(_picture, kPanelWidth - 16, (kPanelWidth - 16) * 3 / 4);
        gtk_box_append(GTK_BOX(panel), _picture);
        _details = gtk_label_new("Space takes a picture; one is taken by itself when the head stays centred "
                                 "for 1.5 s (front camera).");
        gtk_label_set_wrap(GTK_LABEL(_details), TRUE);
        gtk_label_set_xalign(GTK_LABEL(_details), 0);
        gtk_box_append(GTK_BOX(panel), _details);
        gtk_box_append(GTK_BOX(body), panel);
        gtk_box_append(GTK_BOX(outer), body);
        gtk_window_set_child(GTK_WINDOW(_window), outer);

        GtkEventController* keys = gtk_event_controller_key_new();
        // The capture phase: keys reach the demo before a focused widget (Space would press a button).
        gtk_event_controller_set_propagation_phase(keys, GTK_PHASE_CAPTURE);
        g_signal_connect(keys, "key-pressed", G_CALLBACK(onKey), this);
        gtk_widget_add_controller(_window, keys);
        g_signal_connect_swapped(_window, "close-request", G_CALLBACK(+[](Demo* d) {
                                     d->quit();
                                     return TRUE; // the window goes after the loop has ended
                                 }),
                                 this);
        if (_options.seconds > 0) {
            g_timeout_add(static_cast<guint>(_options.seconds * 1000), +[](gpointer d) {
                static_cast<Demo*>(d)->quit();
                return G_SOURCE_REMOVE;
            }, this);
        }
        gtk_window_present(GTK_WINDOW(_window));
    }

    // After the loop: everything stopped, the window goes.
    void destroy() {
        if (_window != nullptr) {
            gtk_window_destroy(GTK_WINDOW(_window));
            _window = nullptr;
        }
    }

private:
    using Action = void (*)(Demo*);
    struct ButtonAction {
        Demo* demo;
        Action action;
    };

    void addButton(GtkWidget* box, const char* label, Action action) {
        GtkWidget* button = gtk_button_new_with_label(label);
        // Not focusable: Space and the letters stay the demo's keys.
        gtk_widget_set_focusable(button, FALSE);
        g_signal_connect_data(button, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                                  auto* a = static_cast<ButtonAction*>(data);
                                  a->action(a->demo);
                              }),
                              new ButtonAction{this, action},
                              +[](gpointer data, GClosure*) { delete static_cast<ButtonAction*>(data); },
                              GConnectFlags(0));
        gtk_box_append(GTK_BOX(box), button);
    }

    static gboolean onKey(GtkEventControllerKey*, guint keyval, guint, GdkModifierType state, gpointer data) {
        auto* d = static_cast<Demo*>(data);
        const bool ctrl = (state & GDK_CONTROL_MASK) != 0;
        switch (keyval) {
        case GDK_KEY_q:
        case GDK_KEY_Q:
            if (ctrl) {
                d->quit();
                return TRUE;
            }
            return FALSE;
        case GDK_KEY_space: d->capture(false); return TRUE;
        case GDK_KEY_s:
        case GDK_KEY_S: d->switchCamera(); return TRUE;
        case GDK_KEY_t:
        case GDK_KEY_T: d->toggleTorch(); return TRUE;
        case GDK_KEY_v:
        case GDK_KEY_V: d->toggleVideo(); return TRUE;
        default: return FALSE;
        }
    }

    void say(const std::string& text) { gtk_label_set_text(GTK_LABEL(_status), text.c_str()); }

    std::string cameraName() const {
        const auto device = _capture->videoHelper()->device();
        return device ? device->localizedName() : std::string("no camera");
    }

    // The first layout gave the capture view its size: choose the camera, start video and the head poll.
    void startCamera() {
        if (_options.front && _capture->backCameraActive()) {
            _capture->toggleCameraWithAnimation(false);
        }
        matchOrientation(_capture->backCameraActive());
        // Without a back camera (a lone webcam, a video file) the engine was made without input, so no camera
        // offered face detection then: ask again now that the front camera is in, before video starts (the
        // detection types can change only while stopped).
        const auto& engine = _capture->videoHelper();
        if (!engine->faceFindSupport()) {
            engine->setFaceFindSupport(true);
            engine->setPdf417Support(true);
        }
        _capture->startVideo();
        _poll = kp::NSTimer::scheduledTimerWithTimeInterval(kPollSeconds, true, [this](kp::NSTimer&) { poll(); });
        say(cameraName());
        std::printf("{\"event\":\"started\",\"camera\":\"%s\",\"front\":%s}\n", cameraName().c_str(),
                    _capture->backCameraActive() ? "false" : "true");
        std::fflush(stdout);
    }

    // Main thread, every 0.1 s: how long the head has stayed centred; a picture once it has for long enough.
    void poll() {
        const auto& engine = _capture->videoHelper();
        const bool centred = _capture->videoRunning() && engine->showCenterBox() && engine->isHeadCentered() &&
                             !kp::CGRectIsEmpty(engine->faceRect());
        if (!centred) {
            if (_centredFor > 0) {
                _circle->setValue(0);
            }
            _centredFor = 0;
            _autoCaptured = false;
            return;
        }
        if (_centredFor == 0) {
            std::printf("{\"event\":\"headCentered\"}\n");
            std::fflush(stdout);
        }
        _centredFor += kPollSeconds;
        _circle->setValue(std::min(100.0, 100.0 * _centredFor / kAutoCaptureSeconds));
        if (_centredFor >= kAutoCaptureSeconds - 1e-9 && !_autoCaptured) {
            _autoCaptured = true;
            capture(true);
        }
    }

    void capture(bool automatic) {
        if (_capture->videoRunning()) {
            say(automatic ? "head centred: taking a picture" : "taking a picture");
        }
        const uint64_t generation = ++_captureCount;
        _capture->captureImage([this, generation, automatic](const std::optional<kp::UIImage>& picture,
                                                               const kp::NSErrorRef& error) {
            // On "VideoDataOutputQueue" (or at once, with the error): the analysis runs on a worker, the
            // results go to the main thread.
            if (error || !picture) {
                const std::string why = error ? error->domain() + " (" + std::to_string(error->code()) + ")"
                                              : std::string("no picture");
                kp::dispatch_async(kp::dispatch_get_main_queue(), [this, why] { say("capture failed: " + why); });
                return;
            }
            _analysing.fetch_add(1);
            kp::dispatch_async(kp::dispatch_get_global_queue(kp::DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
                               [this, image = *picture, generation, automatic] {
                                   auto result = std::make_shared<Analysis>(analyse(image));
                                   kp::dispatch_async(kp::dispatch_get_main_queue(),
                                                      [this, result, generation, automatic] {
                                                          show(*result, generation, automatic);
                                                          _analysing.fetch_sub(1);
                                                      });
                               });
        });
    }

    void show(const Analysis& a, uint64_t generation, bool automatic) {
        if (_quitting) {
            return;
        }
        if (!a.annotatedPng.empty()) {
            GBytes* bytes = g_bytes_new(a.annotatedPng.data(), a.annotatedPng.size());
            GdkTexture* texture = gdk_texture_new_from_bytes(bytes, nullptr);
            g_bytes_unref(bytes);
            if (texture != nullptr) {
                gtk_picture_set_paintable(GTK_PICTURE(_picture), GDK_PAINTABLE(texture));
                g_object_unref(texture);
            }
        }
        const bool face = !kp::CGRectIsEmpty(a.face.faceBounds);
        char text[512];
        std::snprintf(text, sizeof text,
                      "Picture %llu (%s), %d x %d\nFocus: %d / 100\nFocus score: %d / 100\nBrightness: %d / 255\n"
                      "Face: %s",
                      static_cast<unsigned long long>(generation), automatic ? "automatic" : "key or button",
                      a.width, a.height, a.focus, a.focusScore, a.brightness,
                      face ? (std::to_string(int(a.face.faceBounds.size.width)) + " x " +
                              std::to_string(int(a.face.faceBounds.size.height)) + " at " +
                              std::to_string(int(a.face.faceBounds.origin.x)) + ", " +
                              std::to_string(int(a.face.faceBounds.origin.y)) + (a.face.hasSmile ? ", smiling" : ""))
                                 .c_str()
                           : "none found");
        gtk_label_set_text(GTK_LABEL(_details), text);
        say("picture " + std::to_string(generation) + " taken");
        std::printf("{\"event\":\"captured\",\"automatic\":%s,\"width\":%d,\"height\":%d,\"focus\":%d,"
                    "\"focusScore\":%d,\"brightness\":%d,\"face\":%s}\n",
                    automatic ? "true" : "false", a.width, a.height, a.focus, a.focusScore, a.brightness,
                    face ? "true" : "false");
        std::fflush(stdout);
    }

    void switchCamera() {
        const auto device = _capture->videoHelper()->device();
        const kp::AVCaptureDevicePosition wanted =
            _capture->backCameraActive() ? kp::AVCaptureDevicePositionFront : kp::AVCaptureDevicePositionBack;
        const auto all = kp::AVCaptureDevice::devices();
        if (std::none_of(all.begin(), all.end(), [&](const auto& d) { return d->position() == wanted; })) {
            say(std::string("no ") + (wanted == kp::AVCaptureDevicePositionFront ? "front" : "back") + " camera");
            return;
        }
        _capture->toggleCameraWithAnimation(true);
        matchOrientation(_capture->backCameraActive());
        _circle->setValue(0);
        _centredFor = 0;
        say(cameraName() + (_capture->backCameraActive() ? " (back)" : " (front)"));
    }

    void toggleTorch() {
        const auto& engine = _capture->videoHelper();
        const auto device = engine->device();
        if (!device || !device->hasTorch()) {
            say(cameraName() + " has no torch");
            return;
        }
        if (device->torchMode() == kp::AVCaptureTorchModeOff) {
            engine->enableTorchWithLevel(1.0F);
            say("torch on");
        } else {
            engine->disableTorch();
            say("torch off");
        }
    }

    void toggleVideo() {
        if (_capture->videoRunning()) {
            _capture->stopVideo();
            _circle->setValue(0);
            _centredFor = 0;
            say("video off");
        } else {
            _capture->startVideo();
            say(cameraName());
        }
    }

    // Stops video, the poll and the circle's worker, lets running analyses finish, and ends the loop.
    void quit() {
        if (_quitting) {
            return;
        }
        _quitting = true;
        if (_poll) {
            _poll->invalidate();
            _poll.reset();
        }
        _capture->stopVideo();
        _circle->stopAnimating();
        // A picture already taken may still be on its way to the callback: let the still output finish and the
        // frame queue run dry before waiting for the analyses it started.
        const auto& engine = _capture->videoHelper();
        while (engine->stillImageOutput() && engine->stillImageOutput()->isCapturingStillImage()) {
            kp::NSThread::sleepForTimeInterval(0.005);
        }
        kp::dispatch_sync(engine->videoDataOutputQueue(), [] {});
        while (_circle->animating() || _analysing.load() > 0) {
            // Analyses post their results to the main queue: run it while waiting.
            kp::NSRunLoop::mainRunLoop().drainPending();
            kp::NSThread::sleepForTimeInterval(0.005);
        }
        g_main_loop_quit(_loop);
    }

    Options _options;
    GMainLoop* _loop;
    std::shared_ptr<kp::SimpleCaptureView> _capture;
    std::shared_ptr<kp::KPProgressCircleView> _circle;
    std::shared_ptr<DemoRoot> _root;
    std::shared_ptr<kp::NSTimer> _poll;
    GtkWidget* _window = nullptr;
    GtkWidget* _status = nullptr;
    GtkWidget* _picture = nullptr;
    GtkWidget* _details = nullptr;
    double _centredFor = 0;
    bool _autoCaptured = false;
    bool _quitting = false;
    uint64_t _captureCount = 0;
    std::atomic<int> _analysing{0};
};

} // namespace

int main(int argc, char** argv) {
    int status = 0;
    const auto options = parse(argc, argv, status);
    if (!options) {
        return status;
    }
    if (!gtk_init_check()) {
        std::fprintf(stderr, "kpimage-demo: cannot open a display (set DISPLAY or WAYLAND_DISPLAY to a running "
                             "display server)\n");
        return 1;
    }
    kp::KPGtkAttachMainRunLoop();
    if (!prepareCameras(*options)) {
        return 1;
    }
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    {
        Demo demo(*options, loop);
        demo.build();
        g_main_loop_run(loop);
        demo.destroy();
    }
    g_main_loop_unref(loop);
    return 0;
}
