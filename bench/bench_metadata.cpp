// SPDX-License-Identifier: MIT
// Speed of the metadata detectors per 1280 x 720 frame against the plain library calls (dlib's HOG detector on the
// whole frame, ZXing-cpp's ReadBarcodes on the whole frame), and the read rate and corner error on a code set. Run with
// --benchmark_repetitions=5 for medians; the comparison after the table uses CPU time.
#include "BenchReport.h"

#include "Platform/Capture/SampleScene.h"
#include "Platform/Vision/LiveFaceTracker.h"
#include "Platform/Vision/MachineCodeReader.h"
#include "support/CodePictures.h"

#include "KPImage/Platform/CIDetector.h"

#include "KPImage/Platform/UIImage.h"

#include <ZXing/ReadBarcode.h>
#include <benchmark/benchmark.h>
#include <dlib/image_processing/frontal_face_detector.h>
#ifdef KPIMAGE_BENCH_HAAR
#include <opencv2/objdetect.hpp>
#endif

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <numbers>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace kp;

// Frames of the sample camera's timeline at a number of frames per second of its period: 15 is what the metadata
// worker analyses of a 30 fps camera at most, 5 a slower worker (larger moves between analysed frames). The
// detectors run through one period before they are timed, and are timed over whole periods: the figures are the
// steady state's average per analysed frame of the scene's timeline (the face upright, tilted, turned, leaving and
// absent; the card's codes swaying), not one repeated frame.
constexpr int kTimedPeriods = 2;
int framesPerPeriod(int perSecond) {
    return static_cast<int>(SampleScene::kPeriod) * perSecond;
}
const std::vector<LumaImage>& sceneFrames(int perSecond) {
    static std::map<int, std::vector<LumaImage>> cache;
    auto& out = cache[perSecond];
    if (!out.empty()) {
        return out;
    }
    for (int i = 0; i < framesPerPeriod(perSecond); ++i) {
        cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1280, 720);
        SampleScene::shared().render(s, 1280, 720, static_cast<double>(i) / perSecond, {});
        LumaImage l;
        l.resize(1280, 720);
        const uint8_t* d = cairo_image_surface_get_data(s);
        const int stride = cairo_image_surface_get_stride(s);
        for (int y = 0; y < 720; ++y) {
            for (int x = 0; x < 1280; ++x) {
                const uint8_t* p = d + y * stride + 4 * x;
                l.row(y)[x] = static_cast<uint8_t>((77u * p[2] + 150u * p[1] + 29u * p[0] + 128u) >> 8);
            }
        }
        cairo_surface_destroy(s);
        out.push_back(std::move(l));
    }
    return out;
}
const std::vector<LumaImage>& sceneFrames() {
    return sceneFrames(5);
}

void BM_FacesOurTracker(benchmark::State& state, int perSecond) {
    LiveFaceTracker tracker(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Video);
    const auto& frames = sceneFrames(perSecond);
    for (const LumaImage& f : frames) {
        benchmark::DoNotOptimize(tracker.track(f));
    }
    size_t i = 0;
    size_t faces = 0;
    for (auto _ : state) {
        faces += tracker.track(frames[i++ % frames.size()]).size();
    }
    state.counters["facesPerFrame"] = static_cast<double>(faces) / static_cast<double>(i);
}

void BM_FacesPlainDlibFullFrame(benchmark::State& state) {
    dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
    const auto& frames = sceneFrames();
    size_t i = 0;
    size_t faces = 0;
    for (auto _ : state) {
        const LumaImage& f = frames[i++ % frames.size()];
        dlib::array2d<unsigned char> gray(f.height, f.width);
        for (int y = 0; y < f.height; ++y) {
            std::copy(f.row(y), f.row(y) + f.width, &gray[y][0]);
        }
        faces += detector(gray).size();
    }
    state.counters["facesPerFrame"] = static_cast<double>(faces) / static_cast<double>(i);
}

void BM_CodesOurReader(benchmark::State& state, int perSecond) {
    const MachineCodeReader reader({AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode});
    const auto& frames = sceneFrames(perSecond);
    for (const LumaImage& f : frames) {
        benchmark::DoNotOptimize(reader.read(f));
    }
    size_t i = 0;
    size_t codes = 0;
    for (auto _ : state) {
        codes += reader.read(frames[i++ % frames.size()]).size();
    }
    state.counters["codesPerFrame"] = static_cast<double>(codes) / static_cast<double>(i);
}

size_t plainRead(const LumaImage& image) {
    ZXing::DecodeHints hints;
    hints.setFormats(ZXing::BarcodeFormat::PDF417 | ZXing::BarcodeFormat::QRCode);
    return ZXing::ReadBarcodes(
               ZXing::ImageView(image.pixels.data(), image.width, image.height, ZXing::ImageFormat::Lum), hints)
        .size();
}

void BM_CodesPlainZXingFullFrame(benchmark::State& state) {
    const auto& frames = sceneFrames();
    size_t i = 0;
    size_t codes = 0;
    for (auto _ : state) {
        codes += plainRead(frames[i++ % frames.size()]);
    }
    state.counters["codesPerFrame"] = static_cast<double>(codes) / static_cast<double>(i);
}
// The worker's own share of a frame: its luminance from the camera's 'BGRA' buffer.
void BM_LumaFromFrame(benchmark::State& state) {
    CVPixelBufferRef buffer;
    if (CVPixelBufferCreate(1280, 720, kCVPixelFormatType_32BGRA, &buffer) != kCVReturnSuccess) {
        state.SkipWithError("no pixel buffer");
        return;
    }
    LumaImage luma;
    for (auto _ : state) {
        benchmark::DoNotOptimize(LumaImageFromPixelBuffer(buffer, luma));
    }
}

double gOurReadRate = -1;
double gPlainReadRate = -1;
double gWorstCornerError = -1;

// The code set: PDF417 and QR codes at two module sizes each, tilted by up to 24 degrees on every quarter turn, some
// blurred and noisy, each in a 1280 x 720 picture, read as the first frame of a live reader. Read rate of both
// readers, and our worst corner error as a share of the picture's width.
void BM_CodeSetReadRate(benchmark::State& state) {
    const auto set = kptest::codeSet();
    size_t ours = 0;
    size_t plain = 0;
    double worst = 0;
    for (auto _ : state) {
        ours = 0;
        plain = 0;
        worst = 0;
        for (const auto& entry : set) {
            const MachineCodeReader reader({AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode});
            const auto codes = reader.read(entry.picture.image);
            if (codes.size() == 1 && codes[0].text == entry.text) {
                ++ours;
                worst = std::max(worst, kptest::cornerError(codes[0].corners, entry.picture));
            }
            plain += plainRead(entry.picture.image) == 1 ? 1 : 0;
        }
    }
    state.counters["pictures"] = static_cast<double>(set.size());
    gOurReadRate = static_cast<double>(ours) / static_cast<double>(set.size());
    gPlainReadRate = static_cast<double>(plain) / static_cast<double>(set.size());
    gWorstCornerError = worst;
    state.counters["ourReadRate"] = gOurReadRate;
    state.counters["zxingReadRate"] = gPlainReadRate;
    state.counters["worstCornerError"] = gWorstCornerError;
}

// Face quality on real photos, ours against the peers on the same pictures: the plain dlib detector on the whole
// picture and, where OpenCV is installed, its frontal Haar cascade. Printed after the timing table.
struct FaceQuality {
    int pasted = 0, oursPicture = 0, oursVideo = 0, videoFrames = 0, dlibPlain = 0, haar = 0;
    int frontal = 0, frontalYawZero = 0, rolled = 0, rolledRight = 0;
    int groupFaces = 0, groupOurs = 0, groupOursFalse = 0, groupDlib = 0, groupDlibFalse = 0, groupHaar = 0,
        groupHaarFalse = 0;
    double groupOursIoU = 0;
    double widthChangeSum = 0, widthChangeMax = 0, stillIoUSum = 0, stillIoUMin = 1;
    int widthChanges = 0, stillFrames = 0, stillStates = 0;
    // Video of the faces the Haar cascade finds in the single picture: frames with the face found, and for each
    // face the analysed frame it was first found in (15: never).
    int haarVideoFrames = 0, oursHaarVideo = 0;
    std::vector<int> firstFound;
};
FaceQuality gFaces;
bool gFacesMeasured = false;

LumaImage lumaOfFile(const std::string& path) {
    LumaImage out;
    const auto image = UIImage::imageWithContentsOfFile(path);
    if (image && image->CGImage()) {
        LumaImageFromCGImage(*image->CGImage(), out);
    }
    return out;
}

dlib::array2d<unsigned char> dlibOf(const LumaImage& f) {
    dlib::array2d<unsigned char> gray(f.height, f.width);
    for (int y = 0; y < f.height; ++y) {
        std::copy(f.row(y), f.row(y) + f.width, &gray[y][0]);
    }
    return gray;
}

std::vector<CGRect> plainDlibFaces(const LumaImage& f) {
    static dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
    std::vector<CGRect> out;
    auto gray = dlibOf(f);
    for (const auto& r : detector(gray)) {
        out.push_back(CGRectMake(r.left(), r.top(), r.width(), r.height()));
    }
    return out;
}

std::vector<CGRect> haarFaces(const LumaImage& f) {
    std::vector<CGRect> out;
#ifdef KPIMAGE_BENCH_HAAR
    static cv::CascadeClassifier cascade(KPIMAGE_BENCH_HAAR);
    const cv::Mat m(f.height, f.width, CV_8UC1, const_cast<uint8_t*>(f.pixels.data()));
    std::vector<cv::Rect> faces;
    cascade.detectMultiScale(m, faces);
    for (const cv::Rect& r : faces) {
        out.push_back(CGRectMake(r.x, r.y, r.width, r.height));
    }
#else
    (void)f;
#endif
    return out;
}

// Detections matched one to one to the true faces at an overlap of at least 0.3: found, false and the summed IoU.
void score(const std::vector<CGRect>& truth, const std::vector<CGRect>& found, int& hits, int& falses, double* iou) {
    std::vector<bool> used(found.size(), false);
    for (const CGRect& t : truth) {
        for (size_t i = 0; i < found.size(); ++i) {
            const double o = LiveFaceTracker::overlap(t, found[i]);
            if (!used[i] && o >= 0.3) {
                used[i] = true;
                ++hits;
                if (iou != nullptr) {
                    *iou += o;
                }
                break;
            }
        }
    }
    falses += static_cast<int>(std::count(used.begin(), used.end(), false));
}

// The picture scaled by s and turned by degrees (clockwise as seen) about the true face's centre, pasted with that
// centre at (cx, cy) into a 1280 x 720 frame of textured grey; the true face box moves with it.
LumaImage pasted(const LumaImage& photo, CGRect face, double s, double degrees, double cx, double cy, CGRect& box) {
    RotatedCrop crop;
    crop.centre = {face.origin.x + face.size.width / 2, face.origin.y + face.size.height / 2};
    crop.angle = -degrees * std::numbers::pi / 180.0;
    crop.scale = s;
    crop.width = 1280;
    crop.height = 720;
    // The crop shows the face's centre in its middle; shift so that it lands at (cx, cy).
    const LumaImage turned = crop.sample(photo);
    LumaImage out;
    out.resize(1280, 720);
    const int dx = static_cast<int>(std::lround(cx - 640));
    const int dy = static_cast<int>(std::lround(cy - 360));
    const double hw = photo.width * s / 2;
    const double hh = photo.height * s / 2;
    for (int y = 0; y < 720; ++y) {
        for (int x = 0; x < 1280; ++x) {
            // Inside the turned photo's outline: its pixels; outside: a textured background.
            const double ux = x - dx - 640;
            const double uy = y - dy - 360;
            const double a = crop.angle;
            const double px = std::cos(a) * ux + std::sin(a) * uy + (crop.centre.x - photo.width / 2.0) * s;
            const double py = -std::sin(a) * ux + std::cos(a) * uy + (crop.centre.y - photo.height / 2.0) * s;
            const int sx = x - dx;
            const int sy = y - dy;
            const bool inside = std::abs(px) < hw && std::abs(py) < hh && sx >= 0 && sx < 1280 && sy >= 0 && sy < 720;
            out.row(y)[x] = inside ? turned.row(sy)[sx] : static_cast<uint8_t>(100 + (x / 7 + y / 5) % 3 * 12);
        }
    }
    box = CGRectMake(cx - face.size.width * s / 2, cy - face.size.height * s / 2, face.size.width * s,
                     face.size.height * s);
    return out;
}

struct Portrait {
    std::string path;
    CGRect face; // the face in the photo, by eye: brows to chin, ear to ear
};

std::vector<Portrait> portraits() {
    std::vector<Portrait> out = {
        {std::string(KPIMAGE_BENCH_DATA) + "/astronaut.png", CGRectMake(170, 85, 110, 110)},
        {std::string(KPIMAGE_BENCH_DATA) + "/grace_hopper.jpg", CGRectMake(165, 150, 195, 195)},
    };
    const std::string cruise = "/usr/share/doc/libdlib19.1/examples/faces/Tom_Cruise_avp_2014_4.jpg";
    if (std::filesystem::exists(cruise)) {
        out.push_back({cruise, CGRectMake(90, 330, 400, 400)});
    }
    return out;
}

std::map<std::string, std::vector<CGRect>> handMarkedGroupFaces(std::string& folder) {
    folder = "/usr/share/doc/libdlib19.1/examples/faces/";
    std::map<std::string, std::vector<CGRect>> truth;
    for (const char* name : {"testing.xml", "training.xml"}) {
        std::ifstream f(folder + name);
        std::stringstream ss;
        ss << f.rdbuf();
        const std::string text = ss.str();
        const std::regex re("<image file='([^']+)'|<box top='(\\d+)' left='(\\d+)' width='(\\d+)' height='(\\d+)'");
        std::string current;
        for (std::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it) {
            if ((*it)[1].matched) {
                current = (*it)[1];
            } else {
                truth[current].push_back(CGRectMake(std::stod((*it)[3]), std::stod((*it)[2]), std::stod((*it)[4]),
                                                    std::stod((*it)[5])));
            }
        }
    }
    return truth;
}

std::vector<CGRect> boxesOf(const std::vector<TrackedFace>& faces) {
    std::vector<CGRect> out;
    for (const TrackedFace& f : faces) {
        out.push_back(f.bounds);
    }
    return out;
}

void BM_FaceQuality(benchmark::State& state) {
    FaceQuality q;
    for (auto _ : state) {
        q = FaceQuality{};
        // Portraits pasted at face widths of 48 to 320 pixels, upright and rolled by 30 degrees either way.
        for (const Portrait& p : portraits()) {
            const LumaImage photo = lumaOfFile(p.path);
            if (photo.empty()) {
                continue;
            }
            for (double width : {48.0, 72.0, 108.0, 160.0, 240.0, 320.0}) {
                for (double roll : {0.0, 30.0, -30.0}) {
                    CGRect truth;
                    const LumaImage frame =
                        pasted(photo, p.face, width / p.face.size.width, roll, 560 + width, 330, truth);
                    ++q.pasted;
                    LiveFaceTracker picture(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
                    const auto ours = picture.track(frame);
                    int hit = 0, falses = 0;
                    score({truth}, boxesOf(ours), hit, falses, nullptr);
                    q.oursPicture += hit;
                    score({truth}, plainDlibFaces(frame), q.dlibPlain, falses, nullptr);
                    const int haarBefore = q.haar;
                    score({truth}, haarFaces(frame), q.haar, falses, nullptr);
                    const bool haarFound = q.haar > haarBefore;
                    if (hit != 0 && roll == 0.0) {
                        ++q.frontal;
                        q.frontalYawZero += ours[0].yawAngle == 0.0 && ours[0].rollAngle == 0.0 ? 1 : 0;
                    } else if (hit != 0) {
                        ++q.rolled;
                        q.rolledRight += ours[0].rollAngle == (roll > 0 ? 30.0 : 330.0) ? 1 : 0;
                    }
                    // Video: an empty frame, then the face held still for a second at 15 analysed frames a second
                    // with sensor noise; frames with the face, the box's steadiness.
                    LiveFaceTracker video(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Video);
                    LumaImage empty = frame;
                    std::fill(empty.pixels.begin(), empty.pixels.end(), uint8_t{110});
                    video.track(empty);
                    uint32_t seed = 12345;
                    CGRect last{};
                    std::string lastState;
                    int first = 15;
                    for (int i = 0; i < 15; ++i) {
                        LumaImage noisy = frame;
                        for (uint8_t& v : noisy.pixels) {
                            seed = seed * 1664525u + 1013904223u;
                            v = static_cast<uint8_t>(std::clamp(static_cast<int>(v) + static_cast<int>(seed >> 29) - 4,
                                                                0, 255));
                        }
                        const auto seen = video.track(noisy);
                        ++q.videoFrames;
                        int vh = 0, vf = 0;
                        score({truth}, boxesOf(seen), vh, vf, nullptr);
                        q.oursVideo += vh;
                        if (haarFound) {
                            ++q.haarVideoFrames;
                            q.oursHaarVideo += vh;
                            first = vh != 0 ? std::min(first, i) : first;
                        }
                        if (vh == 0 || roll != 0.0) {
                            continue;
                        }
                        const CGRect b = seen[0].bounds;
                        ++q.stillFrames;
                        const double iou = LiveFaceTracker::overlap(b, truth);
                        q.stillIoUSum += iou;
                        q.stillIoUMin = std::min(q.stillIoUMin, iou);
                        if (last.size.width > 0) {
                            const double change = std::abs(b.size.width - last.size.width) / last.size.width;
                            q.widthChangeSum += change;
                            q.widthChangeMax = std::max(q.widthChangeMax, change);
                            ++q.widthChanges;
                        }
                        last = b;
                        // A state line of the capture tool: the box in points of a 1280 x 720 preview and angles.
                        char line[96];
                        std::snprintf(line, sizeof line, "%.0f %.0f %.0f %.0f %.0f", b.origin.x, b.origin.y,
                                      b.size.width, seen[0].yawAngle, seen[0].rollAngle);
                        q.stillStates += lastState != line ? 1 : 0;
                        lastState = line;
                    }
                    if (haarFound) {
                        q.firstFound.push_back(first);
                    }
                }
            }
        }
        // The hand-marked group photos.
        std::string folder;
        for (const auto& [file, truth] : handMarkedGroupFaces(folder)) {
            const LumaImage photo = lumaOfFile(folder + file);
            if (photo.empty()) {
                continue;
            }
            q.groupFaces += static_cast<int>(truth.size());
            LiveFaceTracker picture(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
            score(truth, boxesOf(picture.track(photo)), q.groupOurs, q.groupOursFalse, &q.groupOursIoU);
            score(truth, plainDlibFaces(photo), q.groupDlib, q.groupDlibFalse, nullptr);
            score(truth, haarFaces(photo), q.groupHaar, q.groupHaarFalse, nullptr);
        }
    }
    gFaces = q;
    gFacesMeasured = true;
}

void printFaceQuality() {
    if (!gFacesMeasured) {
        return;
    }
    const FaceQuality& q = gFaces;
    const auto pct = [](double a, double b) { return b > 0 ? 100.0 * a / b : 0.0; };
    std::printf("Faces on real photos (48 to 320 px wide in 1280 x 720 frames, roll 0 and +-30):\n");
    std::printf("  single pictures found: ours %d of %d, plain dlib %d, Haar cascade %d%s\n", q.oursPicture,
                q.pasted, q.dlibPlain, q.haar,
#ifdef KPIMAGE_BENCH_HAAR
                ""
#else
                " (OpenCV not installed)"
#endif
    );
    std::printf("  video, a face appearing and held for 15 analysed frames: in %.1f %% of the frames\n",
                pct(q.oursVideo, q.videoFrames));
    std::vector<int> first = q.firstFound;
    std::sort(first.begin(), first.end());
    std::printf("  video, faces the Haar cascade finds (%zu): in %.1f %% of the frames; first found in analysed frame "
                "median %d, worst %d (0: the frame the face appears; at 15 a second, %.0f and %.0f ms)\n",
                first.size(), pct(q.oursHaarVideo, q.haarVideoFrames), first.empty() ? 0 : first[first.size() / 2],
                first.empty() ? 0 : first.back(), first.empty() ? 0.0 : first[first.size() / 2] * 1000.0 / 15,
                first.empty() ? 0.0 : first.back() * 1000.0 / 15);
    std::printf("  upright faces found with yaw 0 and roll 0: %d of %d (%.1f %%); rolled ones with the right roll: "
                "%d of %d\n",
                q.frontalYawZero, q.frontal, pct(q.frontalYawZero, q.frontal), q.rolledRight, q.rolled);
    std::printf("  box of a still face: width change mean %.2f %%, max %.2f %% frame to frame; IoU with the face "
                "mean %.2f, min %.2f; %d state changes in %d frames\n",
                pct(q.widthChangeSum, q.widthChanges), 100.0 * q.widthChangeMax,
                q.stillFrames > 0 ? q.stillIoUSum / q.stillFrames : 0.0, q.stillIoUMin, q.stillStates, q.stillFrames);
    std::printf("  hand-marked group photos (%d faces): ours %d found, %d false, mean IoU %.2f; plain dlib %d, %d "
                "false; Haar %d, %d false\n",
                q.groupFaces, q.groupOurs, q.groupOursFalse, q.groupOurs > 0 ? q.groupOursIoU / q.groupOurs : 0.0,
                q.groupDlib, q.groupDlibFalse, q.groupHaar, q.groupHaarFalse);
}

// CPU milliseconds per analysed frame (medians of repetitions), the ratios to the peers, and what the worker costs.
void compare(const kpbench::Times& seconds) {
    auto ms = [&](const std::string& name) { return kpbench::timeOf(seconds, name) * 1e3; };
    std::printf("\nCPU time per analysed 1280 x 720 frame (median of repetitions):\n");
    for (const auto& [name, s] : seconds) {
        if (name != "CodeSetReadRate" && name != "FaceQuality") {
            std::printf("  %-34s %8.2f ms\n", name.c_str(), s * 1e3);
        }
    }
    const double faces = ms("FacesOurTracker/15fps");
    const double codes = ms("CodesOurReader/15fps");
    if (faces > 0 && codes > 0) {
        std::printf("Ratios and targets (timeline at 15 analysed frames a second):\n");
        std::printf("  faces   %6.2f ms (target <= 8)   plain dlib / ours   %6.2f\n", faces,
                    ms("FacesPlainDlibFullFrame") / faces);
        std::printf("  codes   %6.2f ms (target <= 10)  plain ZXing / ours  %6.2f\n", codes,
                    ms("CodesPlainZXingFullFrame") / codes);
        // The worker analyses at most 15 frames a second and rests so that it uses at most a fifth of a core.
        const double frame = faces + codes + ms("LumaFromFrame");
        const double rate = std::min(15.0, 0.2 / (frame / 1e3));
        std::printf("  worker  %6.2f ms per analysed frame: %.1f analysed frames a second, %.2f of a core\n", frame,
                    rate, rate * frame / 1e3);
    }
    printFaceQuality();
    if (gOurReadRate >= 0) {
        std::printf("  code set read rate: ours %.1f %%, plain ZXing %.1f %%; our worst corner error %.2f %% of the "
                    "width (target <= 1.5)\n",
                    gOurReadRate * 100, gPlainReadRate * 100, gWorstCornerError * 100);
    }
}

} // namespace

int main(int argc, char** argv) {
    for (int perSecond : {15, 5}) {
        benchmark::RegisterBenchmark(("FacesOurTracker/" + std::to_string(perSecond) + "fps").c_str(),
                                     BM_FacesOurTracker, perSecond)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(kTimedPeriods * framesPerPeriod(perSecond));
    }
    benchmark::RegisterBenchmark("FacesPlainDlibFullFrame", BM_FacesPlainDlibFullFrame)->Unit(benchmark::kMillisecond);
    for (int perSecond : {15, 5}) {
        benchmark::RegisterBenchmark(("CodesOurReader/" + std::to_string(perSecond) + "fps").c_str(), BM_CodesOurReader,
                                     perSecond)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(kTimedPeriods * framesPerPeriod(perSecond));
    }
    benchmark::RegisterBenchmark("CodesPlainZXingFullFrame", BM_CodesPlainZXingFullFrame)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("LumaFromFrame", BM_LumaFromFrame)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("FaceQuality", BM_FaceQuality)->Unit(benchmark::kMillisecond)->Iterations(1);
    benchmark::RegisterBenchmark("CodeSetReadRate", BM_CodeSetReadRate)->Unit(benchmark::kMillisecond)->Iterations(1);
    kpbench::TimesReporter reporter(kpbench::TimesReporter::Clock::Cpu, compare);
    return kpbench::runBenchmarks(argc, argv, reporter);
}
