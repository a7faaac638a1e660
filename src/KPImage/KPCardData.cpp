// SPDX-License-Identifier: MIT
// The card-data parser: header, subfile directory, DL/ID data elements, typed fields, checks and redaction.
#include "KPImage/KPCardData.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace kp {

namespace {

/// The newest version of the standard whose layout and elements are known.
constexpr int32_t kNewestVersion = 10;
/// Card dates outside these years are misread, whatever the calendar says.
constexpr int32_t kEarliestYear = 1850;
constexpr int32_t kLatestYear = 2199;

/// Issuer identification numbers of the Canadian provinces and territories, whose cards write dates year first.
constexpr std::array<std::string_view, 13> kCanadianIssuers = {"604426", "604428", "604429", "604430", "604432",
                                                               "604433", "636012", "636013", "636016", "636017",
                                                               "636028", "636044", "636048"};
/// Province and territory codes.
constexpr std::array<std::string_view, 13> kProvinces = {"AB", "BC", "MB", "NB", "NL", "NS", "NT",
                                                         "NU", "ON", "PE", "QC", "SK", "YT"};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isUpper(char c) {
    return c >= 'A' && c <= 'Z';
}

/// The value of n decimal digits at pos; nil when the text is shorter or a character is not a digit.
std::optional<int32_t> digitsAt(std::string_view text, size_t pos, size_t n) {
    if (pos > text.size() || text.size() - pos < n) {
        return std::nullopt;
    }
    int32_t value = 0;
    for (size_t i = pos; i < pos + n; ++i) {
        if (!isDigit(text[i])) {
            return std::nullopt;
        }
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

bool daysFit(int32_t year, int32_t month, int32_t day) {
    static constexpr std::array<int32_t, 12> kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1) {
        return false;
    }
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return day <= kDays[static_cast<size_t>(month - 1)] + (month == 2 && leap ? 1 : 0);
}

/// An eight-digit card date in one order; nil unless it is a real date in the years cards use.
std::optional<CardDate> readDate(std::string_view s, bool yearFirst) {
    if (s.size() != 8) {
        return std::nullopt;
    }
    const auto year = digitsAt(s, yearFirst ? 0 : 4, 4);
    const auto month = digitsAt(s, yearFirst ? 4 : 0, 2);
    const auto day = digitsAt(s, yearFirst ? 6 : 2, 2);
    if (!year || !month || !day) {
        return std::nullopt;
    }
    const CardDate date{*year, *month, *day};
    if (!date.isValid() || date.year < kEarliestYear || date.year > kLatestYear) {
        return std::nullopt;
    }
    return date;
}

/// The first character of a name (a whole UTF-8 sequence) and a full stop; "" for an empty name.
std::string initial(std::string_view name) {
    name = trim(name);
    if (name.empty()) {
        return {};
    }
    size_t n = 1;
    while (n < name.size() && (static_cast<unsigned char>(name[n]) & 0xC0) == 0x80) {
        ++n;
    }
    return std::string(name.substr(0, n)) + ".";
}

/// Initials of every word of a name written with commas or spaces: "S. M. J.".
std::string initials(std::string_view name) {
    std::string out;
    size_t i = 0;
    while (i < name.size()) {
        const size_t end = std::min(name.find_first_of(", ", i), name.size());
        if (const std::string part = initial(name.substr(i, end - i)); !part.empty()) {
            out += (out.empty() ? "" : " ") + part;
        }
        i = end + 1;
    }
    return out;
}

/// The mandatory elements of a version's DL subfile; an ID subfile lacks the vehicle ones (the first listed).
struct MandatoryList {
    std::vector<std::string_view> vehicle;
    std::vector<std::string_view> common;
};

MandatoryList mandatoryFor(int32_t version) {
    if (version <= 1) {
        return {{"DAR", "DAS", "DAT"}, {"DAA", "DAG", "DAI", "DAJ", "DAK", "DAQ", "DBA", "DBB", "DBC", "DBD"}};
    }
    if (version <= 3) {
        return {
            {"DCA", "DCB", "DCD"},
            {"DBA", "DCS", "DCT", "DBD", "DBB", "DBC", "DAY", "DAU", "DAG", "DAI", "DAJ", "DAK", "DAQ", "DCF", "DCG"}};
    }
    return {{"DCA", "DCB", "DCD"},
            {"DBA", "DCS", "DAC", "DAD", "DBD", "DBB", "DBC", "DAY", "DAU", "DAG", "DAI", "DAJ", "DAK", "DAQ", "DCF",
             "DCG", "DDE", "DDF", "DDG"}};
}

/// The element IDs that stand for the same name part in other versions.
std::vector<std::string_view> nameAlternatives(std::string_view id) {
    if (id == "DAA" || id == "DCS") {
        return {"DAA", "DCS", "DAB"};
    }
    if (id == "DCT" || id == "DAC") {
        return {"DCT", "DAC", "DAA"};
    }
    if (id == "DAD") {
        return {"DAD", "DCT", "DAA"};
    }
    return {id};
}

/// Elements whose values identify nobody and stay in the redacted form.
constexpr std::array<std::string_view, 17> kHarmlessElements = {"DAJ", "DCG", "DAY", "DAZ", "DAU", "DAV",
                                                                "DBC", "DBA", "DBD", "DCA", "DCB", "DCD",
                                                                "DDE", "DDF", "DDG", "DDA", "DDB"};

template <size_t N> bool contains(const std::array<std::string_view, N>& list, std::string_view s) {
    return std::find(list.begin(), list.end(), s) != list.end();
}

/// Parses one code's text; the parts of CardData::parse in order.
class Parser {
public:
    explicit Parser(std::string_view text) : _text(text) {}

    CardData run() {
        if (!readHeader()) {
            return std::move(_card);
        }
        locateSubfiles();
        readElements();
        readFields();
        if (const auto missing = _card.missingMandatoryElements(); !missing.empty()) {
            std::string list;
            for (const auto& id : missing) {
                list += (list.empty() ? "" : ", ") + id;
            }
            _card.problems.push_back("missing mandatory elements: " + list);
        }
        return std::move(_card);
    }

private:
    bool isSeparator(char c) const { return c == _separator || c == '\n'; }
    bool isTerminator(char c) const {
        return (c == _terminator && _terminator != _separator) || (c == '\r' && _separator != '\r');
    }

    /// The compliance indicator, separators, file type, issuer, versions and the subfile directory; false when
    /// there is nothing more to read.
    bool readHeader() {
        if (_text.empty() || _text[0] != '@') {
            return false;
        }
        // "@", then the element separator, record separator and segment terminator (some readers drop or change
        // them), then the file type.
        size_t typeAt = std::string_view::npos;
        for (size_t p = 1; p <= 8 && p < _text.size(); ++p) {
            const std::string_view rest = _text.substr(p);
            if (rest.starts_with("ANSI") || rest.starts_with("AAMVA")) {
                typeAt = p;
                break;
            }
            if (static_cast<unsigned char>(_text[p]) >= 0x20) {
                return false;
            }
        }
        if (typeAt == std::string_view::npos) {
            return false;
        }
        _card.isCard = true;
        _separator = typeAt > 1 ? _text[1] : '\n';
        _terminator = typeAt > 3 ? _text[3] : '\r';
        size_t pos = typeAt + (_text.substr(typeAt).starts_with("AAMVA") ? 5 : 4);
        if (pos < _text.size() && _text[pos] == ' ') {
            ++pos;
        }
        const auto issuer = digitsAt(_text, pos, 6);
        const auto version = digitsAt(_text, pos + 6, 2);
        if (!issuer || !version) {
            _card.problems.push_back(pos + 8 > _text.size() ? "truncated header" : "malformed header");
            if (issuer) {
                _card.issuer = std::string(_text.substr(pos, 6));
            }
            return false;
        }
        _card.issuer = std::string(_text.substr(pos, 6));
        _card.version = *version;
        pos += 8;
        if (_card.version > kNewestVersion) {
            _card.problems.push_back("unknown version " + std::to_string(_card.version));
        }
        if (_card.version >= 2) {
            const auto jurisdictionVersion = digitsAt(_text, pos, 2);
            if (!jurisdictionVersion) {
                _card.problems.push_back(pos + 2 > _text.size() ? "truncated header" : "malformed header");
                return false;
            }
            _card.jurisdictionVersion = *jurisdictionVersion;
            pos += 2;
        }
        const auto entries = digitsAt(_text, pos, 2);
        if (!entries) {
            _card.problems.push_back(pos + 2 > _text.size() ? "truncated header" : "malformed header");
            return false;
        }
        _card.numberOfEntries = *entries;
        pos += 2;
        for (int32_t i = 0; i < _card.numberOfEntries; ++i, pos += 10) {
            if (pos + 10 > _text.size()) {
                _card.problems.push_back("truncated header");
                break;
            }
            const auto offset = digitsAt(_text, pos + 2, 4);
            const auto length = digitsAt(_text, pos + 6, 4);
            if (!isUpper(_text[pos]) || !(isUpper(_text[pos + 1]) || isDigit(_text[pos + 1])) || !offset || !length) {
                _card.problems.push_back("malformed subfile directory");
                break;
            }
            _card.subfiles.push_back({std::string(_text.substr(pos, 2)), *offset, *length, -1, false});
        }
        _headerEnd = std::min(pos, _text.size());
        return true;
    }

    /// Whether a subfile of the type plausibly starts at p: its marker, then an element ID or a separator.
    bool markerAt(size_t p, std::string_view type) const {
        if (p < _headerEnd || p + 2 > _text.size() || _text.substr(p, 2) != type) {
            return false;
        }
        const bool startsWell = p == _headerEnd || isSeparator(_text[p - 1]) || isTerminator(_text[p - 1]);
        const bool continuesWell = p + 2 == _text.size() || isUpper(_text[p + 2]) || isSeparator(_text[p + 2]);
        return startsWell && continuesWell;
    }

    /// Each subfile at its stated offset, else at the marker nearest to it (some issuers state offsets wrong).
    void locateSubfiles() {
        if (_card.subfiles.empty()) {
            // No directory: the DL or ID subfile is looked for by its marker.
            for (const std::string_view type : {"DL", "ID"}) {
                for (size_t p = _headerEnd; p + 2 <= _text.size(); ++p) {
                    if (markerAt(p, type)) {
                        _card.subfiles.push_back({std::string(type), 0, 0, static_cast<int64_t>(p), false});
                        _card.problems.push_back("no subfile directory");
                        return;
                    }
                }
            }
            _card.problems.push_back("no DL or ID subfile");
            return;
        }
        for (CardSubfile& subfile : _card.subfiles) {
            const auto stated = static_cast<size_t>(subfile.offset);
            if (stated + 2 <= _text.size() && _text.substr(stated, 2) == subfile.type && stated >= _headerEnd) {
                subfile.foundAt = static_cast<int64_t>(stated);
                continue;
            }
            size_t best = std::string_view::npos;
            for (size_t p = _headerEnd; p + 2 <= _text.size(); ++p) {
                if (markerAt(p, subfile.type) && !claimed(p) &&
                    (best == std::string_view::npos || distance(p, stated) < distance(best, stated))) {
                    best = p;
                }
            }
            if (best == std::string_view::npos) {
                _card.problems.push_back("subfile " + subfile.type + " is missing");
                continue;
            }
            subfile.foundAt = static_cast<int64_t>(best);
            _card.problems.push_back("subfile " + subfile.type + " is not at its stated offset");
        }
        if (std::none_of(_card.subfiles.begin(), _card.subfiles.end(),
                         [](const CardSubfile& s) { return s.foundAt >= 0 && (s.type == "DL" || s.type == "ID"); })) {
            _card.problems.push_back("no DL or ID subfile");
        }
    }

    static size_t distance(size_t a, size_t b) { return a > b ? a - b : b - a; }

    bool claimed(size_t p) const {
        return std::any_of(_card.subfiles.begin(), _card.subfiles.end(),
                           [p](const CardSubfile& s) { return s.foundAt == static_cast<int64_t>(p); });
    }

    /// The end of the subfile found at start: its segment terminator, else the next subfile, else its stated
    /// length or the end of the text.
    size_t subfileEnd(CardSubfile& subfile) const {
        const auto start = static_cast<size_t>(subfile.foundAt);
        size_t next = _text.size();
        for (const CardSubfile& other : _card.subfiles) {
            if (other.foundAt > subfile.foundAt) {
                next = std::min(next, static_cast<size_t>(other.foundAt));
            }
        }
        for (size_t p = start + 2; p < next; ++p) {
            if (isTerminator(_text[p])) {
                return p;
            }
        }
        const size_t stated = start + static_cast<size_t>(subfile.length);
        if (next == _text.size() && stated > _text.size()) {
            subfile.truncated = true;
        }
        return next;
    }

    void readElements() {
        for (CardSubfile& subfile : _card.subfiles) {
            if (subfile.foundAt < 0) {
                continue;
            }
            const size_t end = subfileEnd(subfile);
            if (subfile.truncated) {
                _card.problems.push_back("subfile " + subfile.type + " is truncated");
            }
            if (subfile.type != "DL" && subfile.type != "ID") {
                continue;
            }
            size_t malformed = 0;
            size_t p = static_cast<size_t>(subfile.foundAt) + 2;
            while (p < end) {
                size_t stop = p;
                while (stop < end && !isSeparator(_text[stop])) {
                    ++stop;
                }
                std::string_view piece = _text.substr(p, stop - p);
                while (!piece.empty() && (isTerminator(piece.back()) || piece.back() == '\r')) {
                    piece.remove_suffix(1);
                }
                if (!trim(piece).empty()) {
                    if (piece.size() >= 3 && isUpper(piece[0]) && isUpper(piece[1]) &&
                        (isUpper(piece[2]) || isDigit(piece[2]))) {
                        _card.elements.push_back({std::string(piece.substr(0, 3)), std::string(trim(piece.substr(3)))});
                    } else {
                        ++malformed;
                    }
                }
                p = stop + 1;
            }
            if (malformed > 0) {
                _card.problems.push_back(std::to_string(malformed) + " malformed element(s) in subfile " +
                                         subfile.type);
            }
        }
    }

    std::string value(std::string_view id) const { return _card.element(id).value_or(std::string()); }

    std::optional<CardDate> date(std::string_view id) {
        const auto raw = _card.element(id);
        if (!raw || raw->empty()) {
            return std::nullopt;
        }
        if (auto d = readDate(*raw, _card.yearFirstDates)) {
            return d;
        }
        if (auto d = readDate(*raw, !_card.yearFirstDates)) {
            _card.problems.push_back("date in " + std::string(id) + " is not in the issuer's order");
            return d;
        }
        _card.problems.push_back("impossible date in " + std::string(id));
        return std::nullopt;
    }

    void readNames() {
        CardFields& f = _card.fields;
        f.familyName = value("DCS");
        if (f.familyName.empty()) {
            f.familyName = value("DAB");
        }
        f.firstName = value("DAC");
        f.middleName = value("DAD");
        // Versions 2 and 3: first and middle names in one element.
        if (const std::string given = value("DCT"); !given.empty() && f.firstName.empty()) {
            const auto cut = given.find_first_of(", ");
            f.firstName = std::string(trim(std::string_view(given).substr(0, cut)));
            if (cut != std::string::npos && f.middleName.empty()) {
                f.middleName = std::string(trim(std::string_view(given).substr(cut + 1)));
            }
        }
        // Version 1: the whole name in one element, "FAMILY,FIRST,MIDDLE" (or "FIRST MIDDLE FAMILY").
        f.fullName = value("DAA");
        if (!f.fullName.empty() && f.familyName.empty() && f.firstName.empty()) {
            std::vector<std::string> parts;
            const std::string_view full = f.fullName;
            const bool commas = full.find(',') != std::string_view::npos;
            size_t i = 0;
            while (i <= full.size()) {
                const size_t end = std::min(full.find(commas ? ',' : ' ', i), full.size());
                parts.emplace_back(trim(full.substr(i, end - i)));
                i = end + 1;
            }
            std::erase_if(parts, [](const std::string& s) { return s.empty(); });
            if (commas && !parts.empty()) {
                f.familyName = parts[0];
                if (parts.size() == 2 && parts[1].find(' ') != std::string::npos) {
                    const auto cut = parts[1].find(' ');
                    f.firstName = parts[1].substr(0, cut);
                    f.middleName = std::string(trim(std::string_view(parts[1]).substr(cut + 1)));
                } else {
                    f.firstName = parts.size() > 1 ? parts[1] : "";
                    for (size_t k = 2; k < parts.size(); ++k) {
                        f.middleName += (k > 2 ? " " : "") + parts[k];
                    }
                }
            } else if (!parts.empty()) {
                f.firstName = parts.front();
                if (parts.size() > 1) {
                    f.familyName = parts.back();
                }
                for (size_t k = 1; k + 1 < parts.size(); ++k) {
                    f.middleName += (k > 1 ? " " : "") + parts[k];
                }
            }
        }
        f.nameSuffix = value("DCU");
        if (f.nameSuffix.empty()) {
            f.nameSuffix = value("DAE");
        }
    }

    void readHeight() {
        std::string raw = value("DAU");
        bool metric = false;
        if (raw.empty()) {
            raw = value("DAV"); // version 1: centimetres
            metric = true;
        }
        size_t digits = 0;
        while (digits < raw.size() && digits < 4 && isDigit(raw[digits])) {
            ++digits;
        }
        if (digits == 0) {
            return;
        }
        auto number = digitsAt(raw, 0, digits).value_or(0);
        const std::string_view unit = trim(std::string_view(raw).substr(digits));
        if (unit == "cm" || unit == "CM") {
            metric = true;
        } else if (unit.empty() && !metric && _card.version <= 1 && digits == 3) {
            // Version 1 writes feet and inches: "510" is 5 ft 10 in.
            number = (number / 100) * 12 + number % 100;
        }
        _card.fields.height = CardHeight{number, metric};
    }

    void readFields() {
        CardFields& f = _card.fields;
        readNames();
        f.documentNumber = value("DAQ");
        const std::string sex = value("DBC");
        f.sex = sex == "1" || sex == "M"   ? CardSex::Male
                : sex == "2" || sex == "F" ? CardSex::Female
                : sex == "9" || sex == "X" ? CardSex::NotSpecified
                                           : CardSex::Unknown;
        f.eyeColor = value("DAY");
        readHeight();
        f.street = value("DAG");
        f.street2 = value("DAH");
        f.city = value("DAI");
        f.jurisdiction = value("DAJ");
        f.postalCode = value("DAK");
        f.country = value("DCG");
        f.documentDiscriminator = value("DCF");
        _card.yearFirstDates = _card.version <= 1 || f.country == "CAN" || contains(kCanadianIssuers, _card.issuer) ||
                               (f.country.empty() && contains(kProvinces, f.jurisdiction));
        f.dateOfBirth = date("DBB");
        f.issueDate = date("DBD");
        f.expiryDate = date("DBA");
    }

    std::string_view _text;
    CardData _card;
    char _separator = '\n';
    char _terminator = '\r';
    size_t _headerEnd = 0;
};

} // namespace

bool CardDate::isValid() const {
    return year >= 1 && year <= 9999 && daysFit(year, month, day);
}

std::string CardDate::str() const {
    char buf[32];
    if (month == 0 && day == 0) {
        std::snprintf(buf, sizeof buf, "%04d", static_cast<int>(year));
    } else {
        std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", static_cast<int>(year), static_cast<int>(month),
                      static_cast<int>(day));
    }
    return buf;
}

std::optional<CardDate> CardDate::fromString(std::string_view text) {
    if (text.size() != 10 || text[4] != '-' || text[7] != '-') {
        return std::nullopt;
    }
    const auto year = digitsAt(text, 0, 4);
    const auto month = digitsAt(text, 5, 2);
    const auto day = digitsAt(text, 8, 2);
    if (!year || !month || !day) {
        return std::nullopt;
    }
    const CardDate date{*year, *month, *day};
    return date.isValid() ? std::optional(date) : std::nullopt;
}

std::string CardHeight::str() const {
    return std::to_string(value) + (centimetres ? " cm" : " in");
}

CardData CardData::parse(std::string_view text) {
    return Parser(text).run();
}

std::optional<std::string> CardData::element(std::string_view id) const {
    for (const CardElement& e : elements) {
        if (e.id == id) {
            return e.value;
        }
    }
    return std::nullopt;
}

std::optional<bool> CardData::isExpiredOn(const CardDate& today) const {
    if (!fields.expiryDate || !fields.expiryDate->isValid()) {
        return std::nullopt;
    }
    return today > *fields.expiryDate;
}

std::optional<int32_t> CardData::ageOn(const CardDate& today) const {
    if (!fields.dateOfBirth || !fields.dateOfBirth->isValid() || today < *fields.dateOfBirth) {
        return std::nullopt;
    }
    const CardDate& born = *fields.dateOfBirth;
    int32_t age = today.year - born.year;
    if (std::pair(today.month, today.day) < std::pair(born.month, born.day)) {
        --age;
    }
    return age;
}

std::vector<std::string> CardData::missingMandatoryElements() const {
    std::vector<std::string> missing;
    if (!isCard || version < 0) {
        return missing;
    }
    const bool hasDL = std::any_of(subfiles.begin(), subfiles.end(),
                                   [](const CardSubfile& s) { return s.type == "DL" && s.foundAt >= 0; });
    const bool hasID = std::any_of(subfiles.begin(), subfiles.end(),
                                   [](const CardSubfile& s) { return s.type == "ID" && s.foundAt >= 0; });
    if (!hasDL && !hasID) {
        return missing; // "no DL or ID subfile" says it all
    }
    const MandatoryList list = mandatoryFor(version);
    auto check = [&](std::string_view id) {
        const auto alternatives = nameAlternatives(id);
        if (std::none_of(alternatives.begin(), alternatives.end(), [&](std::string_view a) { return element(a); })) {
            missing.emplace_back(id);
        }
    };
    if (hasDL) {
        std::for_each(list.vehicle.begin(), list.vehicle.end(), check);
    }
    std::for_each(list.common.begin(), list.common.end(), check);
    return missing;
}

CardData CardData::redacted() const {
    CardData r = *this;
    r.isRedacted = true;
    CardFields& f = r.fields;
    f.familyName = initial(f.familyName);
    f.firstName = initial(f.firstName);
    f.middleName = initial(f.middleName);
    f.fullName = initials(f.fullName);
    f.nameSuffix.clear();
    if (!f.documentNumber.empty()) {
        f.documentNumber = "***" + (f.documentNumber.size() > 3 ? f.documentNumber.substr(f.documentNumber.size() - 3)
                                                                : std::string());
    }
    if (f.dateOfBirth) {
        f.dateOfBirth = CardDate{f.dateOfBirth->year, 0, 0};
    }
    f.street.clear();
    f.street2.clear();
    f.postalCode.clear();
    f.documentDiscriminator.clear();
    r.elements.clear();
    for (const CardElement& e : elements) {
        if (contains(kHarmlessElements, e.id)) {
            r.elements.push_back(e);
        } else if (e.id == "DCS" || e.id == "DAB") {
            r.elements.push_back({e.id, f.familyName});
        } else if (e.id == "DAC") {
            r.elements.push_back({e.id, f.firstName});
        } else if (e.id == "DAD") {
            r.elements.push_back({e.id, f.middleName});
        } else if (e.id == "DAA" || e.id == "DCT") {
            r.elements.push_back({e.id, initials(e.value)});
        } else if (e.id == "DAQ") {
            r.elements.push_back({e.id, f.documentNumber});
        } else if (e.id == "DBB") {
            r.elements.push_back({e.id, f.dateOfBirth ? f.dateOfBirth->str() : std::string()});
        }
    }
    return r;
}

} // namespace kp
