// SPDX-License-Identifier: MIT
// Card-data parsing: versions and issuers, wrong offsets, truncated and garbage texts, dates, and redaction.
#include "KPImage/KPCardData.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

using namespace kp;

namespace {

using Elements = std::vector<std::string>;

/// A well-formed card text: the header with a correct subfile directory, then each subfile's elements.
std::string cardText(const std::string& issuer, int version,
                     const std::vector<std::pair<std::string, Elements>>& subs) {
    std::vector<std::string> bodies;
    for (const auto& [type, elements] : subs) {
        std::string body = type;
        for (size_t i = 0; i < elements.size(); ++i) {
            body += elements[i] + (i + 1 < elements.size() ? "\n" : "\r");
        }
        bodies.push_back(body);
    }
    char head[16];
    std::snprintf(head, sizeof head, "%02d", version);
    std::string header = "@\n\x1e\rANSI " + issuer + head + (version >= 2 ? "01" : "");
    std::snprintf(head, sizeof head, "%02zu", subs.size());
    header += head;
    size_t offset = header.size() + 10 * subs.size();
    for (size_t i = 0; i < subs.size(); ++i) {
        char entry[16];
        std::snprintf(entry, sizeof entry, "%s%04zu%04zu", subs[i].first.c_str(), offset, bodies[i].size());
        header += entry;
        offset += bodies[i].size();
    }
    for (const auto& b : bodies) {
        header += b;
    }
    return header;
}

// Made-up people only.
// clang-format off
const Elements kVersion9 = {"DCAD", "DCBNONE", "DCDNONE", "DBA12102030", "DCSSAMPLE", "DACMICHAEL", "DADJOHN",
                            "DBD06062019", "DBB06061986", "DBC1", "DAYBRO", "DAU068 in", "DAG2300 WEST BROAD STREET",
                            "DAIRICHMOND", "DAJVA", "DAK232690000  ", "DAQT64235789", "DCF2424244747474786102204",
                            "DCGUSA", "DDEN", "DDFN", "DDGN"};
const Elements kVersion1 = {"DAAPUBLIC,JOHN,QUINCY", "DAG12 ELM ST", "DAHAPT 4", "DAIDENVER", "DAJCO", "DAK80202     ",
                            "DAQ123456789", "DARC", "DASNONE", "DATNONE", "DBA20280115", "DBB19700301", "DBCM",
                            "DBD20200115", "DAU510"};
const Elements kVersion3 = {"DCAC", "DCBNONE", "DCDNONE", "DBA07042027", "DCSDOE", "DCTJANE,ANN", "DBD07042019",
                            "DBB07041990", "DBC2", "DAYGRN", "DAU064 in", "DAG1 MAIN ST", "DAIAUSTIN", "DAJTX",
                            "DAK78701", "DAQ09876543", "DCF77AB", "DCGUSA"};
const Elements kOntario = {"DCAG", "DCBX", "DCDNONE", "DBA20310430", "DCSTREMBLAY", "DACLUC", "DADNONE",
                           "DBD20260430", "DBB19920430", "DBC1", "DAYBLU", "DAU175 cm", "DAG5 QUEEN ST W",
                           "DAITORONTO", "DAJON", "DAKM5H 2N2", "DAQT1234-56789-20430", "DCFAB1234", "DCGCAN",
                           "DDEN", "DDFN", "DDGN"};
const Elements kIdCard = {"DBA01012029", "DCSROE", "DACRICHARD", "DADNONE", "DBD01012021", "DBB02292000", "DBC9",
                          "DAYHAZ", "DAU070 in", "DAG9 PINE RD", "DAISALEM", "DAJOR", "DAK97301", "DAQID7788",
                          "DCFX1", "DCGUSA", "DDEN", "DDFN", "DDGN"};
// clang-format on

std::string sampleCard() {
    return cardText("636000", 9, {{"DL", kVersion9}, {"ZV", {"ZVAXYZ"}}});
}

// The typed fields of a card on one line: version, names, dates born/issued/expiring, number, sex, height,
// country and date order.
std::string summary(const CardData& c) {
    const auto date = [](const std::optional<CardDate>& d) { return d ? d->str() : std::string("-"); };
    const CardFields& f = c.fields;
    std::ostringstream out;
    out << c.version << " " << f.familyName << "/" << f.firstName << "/" << f.middleName << " " << date(f.dateOfBirth)
        << " " << date(f.issueDate) << " " << date(f.expiryDate) << " " << f.documentNumber << " "
        << static_cast<int>(f.sex) << " " << (f.height ? f.height->str() : "-") << " " << f.country
        << (c.yearFirstDates ? " ymd" : " mdy") << (c.isCard && c.problems.empty() ? "" : " damaged");
    return out.str();
}

TEST(CardData, VersionsAndIssuersGiveTheSameTypedFields) {
    const std::pair<std::string, std::string> cases[] = {
        {sampleCard(), "9 SAMPLE/MICHAEL/JOHN 1986-06-06 2019-06-06 2030-12-10 T64235789 1 68 in USA mdy"},
        // Version 1: a one-field name, year-first dates, feet and inches.
        {cardText("636020", 1, {{"DL", kVersion1}}),
         "1 PUBLIC/JOHN/QUINCY 1970-03-01 2020-01-15 2028-01-15 123456789 1 70 in  ymd"},
        {cardText("636015", 3, {{"DL", kVersion3}}),
         "3 DOE/JANE/ANN 1990-07-04 2019-07-04 2027-07-04 09876543 2 64 in USA mdy"},
        {cardText("636012", 8, {{"DL", kOntario}}),
         "8 TREMBLAY/LUC/NONE 1992-04-30 2026-04-30 2031-04-30 T1234-56789-20430 1 175 cm CAN ymd"},
        {cardText("636029", 10, {{"ID", kIdCard}}),
         "10 ROE/RICHARD/NONE 2000-02-29 2021-01-01 2029-01-01 ID7788 9 70 in USA mdy"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(summary(CardData::parse(text)), expected);
    }
    // Only DL/ID elements, in the text's order, padding trimmed; the jurisdiction's subfile stays out.
    const CardData card = CardData::parse(sampleCard());
    ASSERT_EQ(card.elements.size(), kVersion9.size());
    EXPECT_EQ(card.elements[15], (CardElement{"DAK", "232690000"}));
    EXPECT_EQ(card.fields.street, "2300 WEST BROAD STREET");
}

TEST(CardData, DamagedTextsGiveProblemsNeverACrash) {
    const std::string good = sampleCard();
    std::string shifted = good; // one stray separator after the directory: every stated offset is one short
    shifted.insert(good.find("DLDCA"), "\n");
    auto with = [&](const std::string& from, const std::string& to) {
        return std::string(good).replace(good.find(from), from.size(), to);
    };
    const std::string impossible = with("DBB06061986", "DBB02301986"), reordered = with("DBA12102030", "DBA20301210");
    Elements withoutDiscriminator = kVersion9;
    std::erase(withoutDiscriminator, "DCF2424244747474786102204");
    const std::string missingDiscriminator = cardText("636000", 9, {{"DL", withoutDiscriminator}});
    Elements otherCountry = kOntario; // the issuer alone says the dates are year first
    std::replace(otherCountry.begin(), otherCountry.end(), std::string("DCGCAN"), std::string("DCGUSA"));
    struct Case {
        const char* what;
        std::string text;
        bool isCard;
        std::vector<std::string> problems;
        const char* family; // "" when nothing may be read
    };
    // clang-format off
    const Case cases[] = {
        {"a URL", "https://example.com/?q=@ANSI", false, {}, ""},
        {"empty", "", false, {}, ""},
        {"header cut in the issuer", "@\n\x1e\rANSI 6360", true, {"truncated header"}, ""},
        {"letters for the version", "@\n\x1e\rANSI 636000XX0102DL00410185", true, {"malformed header"}, ""},
        {"stated offsets wrong", shifted, true,
         {"subfile DL is not at its stated offset", "subfile ZV is not at its stated offset"}, "SAMPLE"},
        {"cut inside the DL subfile", good.substr(0, good.find("DAG")), true,
         {"subfile ZV is missing", "subfile DL is truncated",
          "missing mandatory elements: DAG, DAI, DAJ, DAK, DAQ, DCF, DCG, DDE, DDF, DDG"}, "SAMPLE"},
        {"the end lost", good.substr(0, good.find("DDGN") + 4), true,
         {"subfile ZV is missing", "subfile DL is truncated"}, "SAMPLE"},
        {"30 February", impossible, true, {"impossible date in DBB"}, "SAMPLE"},
        {"year-first date on a U.S. card", reordered, true, {"date in DBA is not in the issuer's order"}, "SAMPLE"},
        {"version 12", with("ANSI 63600009", "ANSI 63600012"), true, {"unknown version 12"}, "SAMPLE"},
        {"no discriminator", missingDiscriminator, true, {"missing mandatory elements: DCF"}, "SAMPLE"},
        {"an ID card's elements as a licence", cardText("636029", 10, {{"DL", kIdCard}}), true,
         {"missing mandatory elements: DCA, DCB, DCD"}, "ROE"},
        {"Ontario card marked USA", cardText("636012", 8, {{"DL", otherCountry}}), true, {}, "TREMBLAY"},
        {"no directory", "@\n\x1e\rANSI 636000090100DLDCSX\nDACY\r", true,
         {"no subfile directory", "missing mandatory elements: DCA, DCB, DCD, DBA, DAD, DBD, DBB, DBC, DAY, DAU, DAG, "
                                  "DAI, DAJ, DAK, DAQ, DCF, DCG, DDE, DDF, DDG"}, "X"},
        {"binary junk after the header", std::string("@\n\x1e\rANSI 636000090101DL00310010\xff\x01\0\x80", 35), true,
         {"subfile DL is missing", "no DL or ID subfile"}, ""},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const CardData card = CardData::parse(c.text);
        EXPECT_EQ(card.isCard, c.isCard);
        EXPECT_EQ(card.problems, c.problems);
        EXPECT_EQ(card.fields.familyName, c.family);
    }
    // The truncated subfile still gives the elements before the cut.
    EXPECT_EQ(CardData::parse(good.substr(0, good.find("DAG"))).fields.eyeColor, "BRO");
    EXPECT_EQ(CardData::parse(impossible).fields.dateOfBirth, std::nullopt);
    EXPECT_EQ(CardData::parse(reordered).fields.expiryDate, (CardDate{2030, 12, 10}));
}

TEST(CardData, ExpiryAndAgeOnAGivenDay) {
    const CardData card = CardData::parse(sampleCard()); // born 1986-06-06, expires 2030-12-10
    const CardData leap = CardData::parse(cardText("636029", 10, {{"ID", kIdCard}})); // born 2000-02-29
    const struct {
        const CardData& card;
        CardDate today;
        std::optional<bool> expired;
        std::optional<int32_t> age;
    } cases[] = {
        {card, {2030, 12, 10}, false, 44}, {card, {2030, 12, 11}, true, 44},          {card, {2026, 6, 5}, false, 39},
        {card, {2026, 6, 6}, false, 40},   {card, {1986, 6, 5}, false, std::nullopt}, {leap, {2001, 2, 28}, false, 0},
        {leap, {2001, 3, 1}, false, 1},    {leap, {2004, 2, 29}, false, 4},           {leap, {2029, 1, 2}, true, 28},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.card.isExpiredOn(c.today), c.expired) << c.today.str();
        EXPECT_EQ(c.card.ageOn(c.today), c.age) << c.today.str();
    }
    EXPECT_EQ(CardData::parse("QR text").ageOn({2026, 1, 1}), std::nullopt);
    EXPECT_TRUE(CardDate::fromString("2026-11-25") == (CardDate{2026, 11, 25}) && !CardDate::fromString("2026-02-29"));
}

TEST(CardData, RedactedFormKeepsNoPersonalValue) {
    for (const std::string& text : {sampleCard(), cardText("636020", 1, {{"DL", kVersion1}})}) {
        const kptest::LogCapture log;
        const CardData full = CardData::parse(text);
        EXPECT_EQ(log.lines(), std::vector<std::string>()); // the library never logs card data
        const CardData r = full.redacted();
        const std::string& number = full.fields.documentNumber;
        EXPECT_EQ(r.fields.familyName + r.fields.firstName + r.fields.documentNumber,
                  full.fields.familyName.substr(0, 1) + "." + full.fields.firstName.substr(0, 1) + ".***" +
                      number.substr(number.size() - 3));
        EXPECT_EQ(r.fields.dateOfBirth, (CardDate{full.fields.dateOfBirth->year, 0, 0}));
        EXPECT_EQ(r.fields.street + r.fields.street2 + r.fields.postalCode + r.fields.documentDiscriminator, "");
        // No element of the redacted form carries a personal value of the full one.
        for (const CardElement& e : r.elements) {
            for (const std::string& secret :
                 {full.fields.familyName, full.fields.firstName, full.fields.documentNumber, full.fields.street,
                  full.fields.street2, full.fields.postalCode, full.fields.fullName}) {
                if (!secret.empty()) {
                    EXPECT_EQ(e.value.find(secret), std::string::npos) << e.id;
                }
            }
            if (e.id == "DBB") {
                EXPECT_EQ(e.value, std::to_string(full.fields.dateOfBirth->year));
            }
        }
    }
}

} // namespace
