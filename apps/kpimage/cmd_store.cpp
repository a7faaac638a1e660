// SPDX-License-Identifier: MIT
// kpimage store save|load|delete: the PNG image store in the documents directory.
#include "Args.h"
#include "Command.h"
#include "ImageFile.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <system_error>

namespace kpcli {

namespace {

namespace fs = std::filesystem;

std::string documentsDirectory() {
    const auto paths = kp::NSSearchPathForDirectoriesInDomains(kp::NSDocumentDirectory, kp::NSUserDomainMask, true);
    return paths.empty() ? std::string() : paths.front();
}

/// The names of the directory's entries, sorted; empty when it cannot be listed.
std::vector<std::string> entriesOf(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// Whether the entry path is there (a link counts itself, whatever it points to).
bool present(const std::string& path) {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}

/// Deletes through the store and prints what went; 1 when nothing was removed.
int deleteImages(const std::string& name, const std::string& extension) {
    const std::string directory = documentsDirectory();
    std::vector<std::string> removed;
    if (name == "*") {
        const std::vector<std::string> before = entriesOf(directory);
        kp::KPImageDictionary::deleteImageWithFileName(name, extension);
        const std::vector<std::string> after = entriesOf(directory);
        std::set_difference(before.begin(), before.end(), after.begin(), after.end(), std::back_inserter(removed));
    } else {
        const std::string entry = name + "." + extension;
        const std::string path = kp::stringByAppendingPathComponent(directory, entry);
        // Looked at only through the store's answer: a name outside the directory is never touched.
        const bool before = present(path);
        kp::KPImageDictionary::deleteImageWithFileName(name, extension);
        if (before && !present(path)) {
            removed.push_back(entry);
        }
    }
    std::string files = "[";
    for (const std::string& r : removed) {
        files += (files.size() > 1 ? ",\"" : "\"") + jsonEscape(r) + "\"";
    }
    files += "]";
    std::cout << JsonObject()
                     .add("action", "delete")
                     .add("name", name)
                     .add("extension", extension)
                     .add("directory", directory)
                     .raw("removed", files)
                     .str()
              << std::endl;
    if (removed.empty()) {
        return fail("nothing removed: no " + (name == "*" ? "entry" : name + "." + extension) +
                    (name == "*" && extension != "*" ? " with the extension " + extension : "") + " in " +
                    directory + " (names outside it are refused)");
    }
    return 0;
}

int store(const std::vector<std::string>& argv) {
    Args args(argv, {"documents"}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.has("documents")) {
        // An empty folder would silently mean the default one.
        if (args.value("documents").empty()) {
            return fail("--documents needs a folder, not an empty name");
        }
        kp::setDocumentsDirectory(args.value("documents"));
    }
    const std::vector<std::string>& p = args.positional();
    const std::string action = p.empty() ? "" : p[0];
    if (action == "save" && p.size() == 3) {
        const auto image = readImageFile(p[1]);
        if (!image) {
            return 1;
        }
        const bool saved = kp::KPImageDictionary::saveImageAsPNG(image->CGImage(), p[2]);
        std::cout << JsonObject()
                         .add("action", "save")
                         .add("name", p[2])
                         .add("directory", documentsDirectory())
                         .add("saved", saved)
                         .str()
                  << std::endl;
        return saved ? 0
                     : fail("cannot save " + p[2] + ".png in " + documentsDirectory() +
                            " (a missing subfolder, a name outside it, or a failed write)");
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
        return deleteImages(p[1], p[2]);
    }
    return fail("usage: store save FILE NAME | load NAME [OUT.png] | delete NAME EXT [--documents DIR]");
}

const Registration kStore({"store",
                           "  kpimage store save FILE NAME | load NAME [OUT.png] | delete NAME EXT"
                           " [--documents DIR]\n"
                           "      the PNG store NAME.png in DIR (default: the XDG documents directory);"
                           " delete takes \"*\" as\n      NAME (every entry with extension EXT) and EXT (any"
                           " extension) and lists what it removed (exit 1 when nothing);\n      names that reach"
                           " outside DIR are refused; \"--\" ends the options; prints one JSON object",
                           store});

} // namespace

} // namespace kpcli
