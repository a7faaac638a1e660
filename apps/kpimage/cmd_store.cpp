// SPDX-License-Identifier: MIT
// kpimage store save|load|delete: the PNG image store in the documents directory.
#include "Args.h"
#include "Command.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <iostream>

namespace kpcli {

namespace {

std::string documentsDirectory() {
    const auto paths = kp::NSSearchPathForDirectoriesInDomains(kp::NSDocumentDirectory, kp::NSUserDomainMask, true);
    return paths.empty() ? std::string() : paths.front();
}

int store(const std::vector<std::string>& argv) {
    Args args(argv, {"documents"}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.has("documents")) {
        kp::setDocumentsDirectory(args.value("documents"));
    }
    const std::vector<std::string>& p = args.positional();
    const std::string action = p.empty() ? "" : p[0];
    if (action == "save" && p.size() == 3) {
        const auto image = kp::UIImage::imageWithContentsOfFile(p[1]);
        if (!image) {
            return fail("cannot read an image from " + p[1]);
        }
        const bool saved = kp::KPImageDictionary::saveImageAsPNG(image->CGImage(), p[2]);
        std::cout << JsonObject()
                         .add("action", "save")
                         .add("name", p[2])
                         .add("directory", documentsDirectory())
                         .add("saved", saved)
                         .str()
                  << std::endl;
        return saved ? 0 : 1;
    }
    if (action == "load" && (p.size() == 2 || p.size() == 3)) {
        const auto image = kp::KPImageDictionary::loadImageWithFileName(p[1]);
        JsonObject o;
        o.add("action", "load").add("name", p[1]).add("found", image.has_value() && image->CGImage() != nullptr);
        if (image && image->CGImage()) {
            o.add("width", static_cast<uint64_t>(image->CGImage()->width()))
                .add("height", static_cast<uint64_t>(image->CGImage()->height()))
                .add("grayscale", image->isGrayScale());
            if (p.size() == 3) {
                const auto png = kp::UIImagePNGRepresentation(*image);
                if (!png || !kp::writeToFile(*png, p[2], true)) {
                    return fail("cannot write " + p[2]);
                }
                o.add("file", p[2]);
            }
        }
        std::cout << o.str() << std::endl;
        return image ? 0 : 1;
    }
    if (action == "delete" && p.size() == 3) {
        kp::KPImageDictionary::deleteImageWithFileName(p[1], p[2]);
        std::cout << JsonObject().add("action", "delete").add("name", p[1]).add("extension", p[2]).str()
                  << std::endl;
        return 0;
    }
    return fail("usage: store save FILE NAME | load NAME [OUT.png] | delete NAME EXT [--documents DIR]");
}

const Registration kStore({"store",
                           "  kpimage store save FILE NAME | load NAME [OUT.png] | delete NAME EXT"
                           " [--documents DIR]\n"
                           "      the PNG store NAME.png in DIR (default: the XDG documents directory);"
                           " delete takes \"*\" as\n      NAME (every entry with extension EXT) and EXT (any"
                           " extension); prints one JSON object",
                           store});

} // namespace

} // namespace kpcli
