// SPDX-License-Identifier: MIT
// Speed of the card-data parser beside reading the card's PDF417 code from a 1280 x 720 picture with ZXing-cpp, the
// step that hands it its text: the parser's share of reading a card.
#include "BenchReport.h"

#include "support/CodePictures.h"

#include "KPImage/KPCardData.h"

#include <ZXing/ReadBarcode.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

namespace {

/// A full card text of 22 elements (made-up person).
const std::string& cardText() {
    static const std::string text =
        "@\n\x1e\rANSI 636014100302DL00410218ZC02590007DLDCAC\nDCBNONE\nDCDNONE\nDBA08152029\nDCSRIVERA\nDACELENA\n"
        "DADMARIA\nDBD08152024\nDBB08151999\nDBC2\nDAYHAZ\nDAU065 in\nDAG400 OAK AVE\nDAISACRAMENTO\nDAJCA\n"
        "DAK958140000\nDAQD1234567\nDCF08/15/2024612AB/CDFD/29\nDCGUSA\nDDEN\nDDFN\nDDGN\rZCZCAX\r";
    return text;
}

void BM_CardDataParse(benchmark::State& state) {
    size_t fields = 0;
    for (auto _ : state) {
        const kp::CardData card = kp::CardData::parse(cardText());
        fields += card.elements.size();
        benchmark::DoNotOptimize(card);
    }
    state.counters["texts/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    if (fields == 0) {
        state.SkipWithError("the card did not parse");
    }
}

void BM_CardDataParseAndRedact(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(kp::CardData::parse(cardText()).redacted());
    }
}

void BM_PDF417ReadZXing(benchmark::State& state) {
    kptest::CodePlacement placement;
    placement.centreX = 640;
    placement.centreY = 360;
    const kptest::CodePicture picture = kptest::renderCode(kptest::CodeKind::PDF417, cardText(), 1280, 720, placement);
    ZXing::DecodeHints hints;
    hints.setFormats(ZXing::BarcodeFormat::PDF417);
    const ZXing::ImageView view(picture.image.pixels.data(), picture.image.width, picture.image.height,
                                ZXing::ImageFormat::Lum);
    size_t read = 0;
    for (auto _ : state) {
        read += ZXing::ReadBarcodes(view, hints).size();
    }
    if (read == 0) {
        state.SkipWithError("the PDF417 code was not read");
    }
}

} // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("CardDataParse", BM_CardDataParse)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("CardDataParseAndRedact", BM_CardDataParseAndRedact)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("PDF417ReadZXing", BM_PDF417ReadZXing)->Unit(benchmark::kMillisecond);
    auto compare = [](const kpbench::Times& times) {
        const double parse = kpbench::timeOf(times, "CardDataParse");
        const double read = kpbench::timeOf(times, "PDF417ReadZXing");
        if (parse > 0 && read > 0) {
            std::printf("card data: %.2f us per text (%.0f texts/s); reading its PDF417 from a 1280x720 picture: "
                        "%.2f ms; the parser costs %.4f %% of the read\n",
                        parse * 1e6, 1.0 / parse, read * 1e3, 100.0 * parse / read);
        }
    };
    kpbench::TimesReporter reporter(kpbench::TimesReporter::Clock::Cpu, compare);
    return kpbench::runBenchmarks(argc, argv, reporter);
}
