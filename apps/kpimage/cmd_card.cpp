// SPDX-License-Identifier: MIT
// kpimage card: the identity-card data of PDF417 codes in pictures (or of a given text), parsed and checked.
#include "Args.h"
#include "CardJson.h"
#include "Command.h"
#include "ImageFile.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <iostream>

namespace kpcli {

namespace {

void printCard(const std::optional<std::string>& file, const std::string& text, const kp::CardDate& today,
               bool redact) {
    const kp::CardData card = kp::CardData::parse(text);
    JsonObject o;
    if (file) {
        o.add("file", *file);
    } else {
        o.raw("file", "null");
    }
    addCardJson(o, card, today, !redact);
    if (!card.isCard) {
        o.add("text", text); // not card data: nothing personal to hide
    }
    std::cout << o.str() << std::endl;
}

int card(const std::vector<std::string>& argv) {
    Args args(argv, {"text", "today"}, {"redact"});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().empty() == !args.has("text")) {
        return fail("card needs FILE... or --text TEXT");
    }
    kp::CardDate today = cardToday();
    if (args.has("today")) {
        const auto day = kp::CardDate::fromString(args.value("today"));
        if (!day) {
            return fail("--today takes a date YYYY-MM-DD");
        }
        today = *day;
    }
    const bool redact = args.flag("redact");
    if (args.has("text")) {
        printCard(std::nullopt, args.value("text"), today, redact);
        return 0;
    }
    for (const std::string& path : args.positional()) {
        const auto image = readImageFile(path);
        if (!image || !image->CGImage()) {
            return 1;
        }
        const auto objects = kp::AVCaptureMetadataOutput::metadataObjectsInImage(
            *image->CGImage(), {kp::AVMetadataObjectTypePDF417Code, kp::AVMetadataObjectTypeQRCode});
        // A PDF417 code's text first; a QR code's when there is none (it is then shown as not a card).
        std::optional<std::string> text;
        for (const auto& object : objects) {
            if (const auto* code = dynamic_cast<const kp::AVMetadataMachineReadableCodeObject*>(object.get());
                code && code->stringValue() && (!text || code->type() == kp::AVMetadataObjectTypePDF417Code)) {
                text = *code->stringValue();
            }
        }
        if (!text) {
            JsonObject o;
            o.add("file", path).add("isCard", false).raw("problems", "[\"no code found\"]");
            std::cout << o.str() << std::endl;
            continue;
        }
        printCard(path, *text, today, redact);
    }
    return 0;
}

const Registration kCard(
    {"card",
     "  kpimage card [FILE... | --text TEXT] [--today YYYY-MM-DD] [--redact]\n"
     "      the identity-card data of the PDF417 code in each picture (else its QR code; or of TEXT), parsed and\n"
     "      checked, one JSON object per input: {\"file\",\"isCard\",\"version\",\"issuer\",\"fields\":{\"familyName\",\"firstName\",\n"
     "      \"middleName\",\"dateOfBirth\",\"issueDate\",\"expiryDate\",\"documentNumber\",\"sex\",\"eyeColor\",\"height\",\n"
     "      \"street\",\"city\",\"jurisdiction\",\"postalCode\",\"country\",\"documentDiscriminator\",...},\"expired\",\n"
     "      \"age\",\"problems\":[...]} (fields the card lacks are left out; expired and age on --today, default\n"
     "      today). A text that is not card data gives isCard false and the \"text\" as it is. --redact: names as\n"
     "      initials, the number's last 3 characters, the year of birth, no street, postal code or discriminator",
     card});

} // namespace

} // namespace kpcli
