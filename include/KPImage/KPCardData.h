// SPDX-License-Identifier: MIT
// The data of a North American driver-licence or ID card's PDF417 code: parsed into its header, subfiles, data
// elements and common typed fields, checked, and redacted for logs.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kp {

/// A calendar date. A redacted date of birth keeps its year only: month and day are 0 then.
struct CardDate {
    int32_t year = 0;
    int32_t month = 0;
    int32_t day = 0;

    /// True for a real calendar date (leap years included) from year 1 to 9999.
    bool isValid() const;
    /// "YYYY-MM-DD", or "YYYY" when month and day are 0.
    std::string str() const;
    /// Parses "YYYY-MM-DD"; nil unless it is a real calendar date.
    static std::optional<CardDate> fromString(std::string_view text);

    friend auto operator<=>(const CardDate&, const CardDate&) = default;
};

/// The cardholder's sex as the card codes it (1 or M male, 2 or F female, 9 or X not specified).
enum class CardSex : int32_t { Unknown = 0, Male = 1, Female = 2, NotSpecified = 9 };

/// A height as the card writes it: inches or centimetres.
struct CardHeight {
    int32_t value = 0;
    bool centimetres = false;

    /// "68 in" or "175 cm".
    std::string str() const;
    friend bool operator==(const CardHeight&, const CardHeight&) = default;
};

/// One entry of the header's subfile directory, with where the subfile was really found.
struct CardSubfile {
    std::string type;   ///< "DL", "ID", or a jurisdiction's own ("ZV")
    int32_t offset = 0; ///< as the header states it, from the start of the text
    int32_t length = 0; ///< as the header states it
    /// Where the subfile's type marker is in the text; -1 when it was not found.
    int64_t foundAt = -1;
    /// The text ended before the subfile did.
    bool truncated = false;
};

/// One data element of a DL or ID subfile: its three-letter ID ("DAQ") and its value, trailing padding removed.
struct CardElement {
    std::string id;
    std::string value;
    friend bool operator==(const CardElement&, const CardElement&) = default;
};

/// The common fields, whichever element IDs the card's version uses for them. Empty strings and nil dates where
/// the card has no such element.
struct CardFields {
    std::string familyName;
    std::string firstName;
    std::string middleName;
    /// The one-field name of older cards ("FAMILY,FIRST,MIDDLE"), as written; the split parts go to the fields
    /// above.
    std::string fullName;
    std::string nameSuffix;
    std::optional<CardDate> dateOfBirth;
    std::optional<CardDate> issueDate;
    std::optional<CardDate> expiryDate;
    std::string documentNumber;
    CardSex sex = CardSex::Unknown;
    std::string eyeColor;
    std::optional<CardHeight> height;
    std::string street;
    std::string street2;
    std::string city;
    std::string jurisdiction; ///< the state or province code ("VA", "ON")
    std::string postalCode;
    std::string country; ///< "USA" or "CAN"
    std::string documentDiscriminator;
};

/// The parsed data of one code's text. Parsing never throws and never logs: whatever is wrong with the text goes
/// to problems (which never quote the card's values).
///
/// Example:
///     const kp::CardData card = kp::CardData::parse(barcodeText);
///     if (card.isCard) {
///         bool expired = card.isExpiredOn({2026, 11, 25}).value_or(true);
///         std::cerr << card.redacted().fields.familyName << "\n";   // "S." : safe for a log
///     }
class CardData {
public:
    /// Parses a code's text. A text that is not card data (a URL, any other code) gives isCard false and no
    /// problems.
    static CardData parse(std::string_view text);

    /// The text carries the card-data header ("@", three separators, "ANSI " or "AAMVA").
    bool isCard = false;
    /// The issuer identification number, six digits ("636000").
    std::string issuer;
    /// The standard's version (0 to 10 known); -1 when the header does not say.
    int32_t version = -1;
    /// The jurisdiction's own version; -1 for version 1 and older headers, which have none.
    int32_t jurisdictionVersion = -1;
    /// The number of subfiles the header announces.
    int32_t numberOfEntries = 0;
    std::vector<CardSubfile> subfiles;
    /// Every data element of the DL and ID subfiles, in the order of the text.
    std::vector<CardElement> elements;
    CardFields fields;
    /// What is wrong with the text, in words without the card's values ("unknown version 12", "subfile DL is
    /// truncated", "impossible date in DBB", "missing mandatory elements: DCF, DDE").
    std::vector<std::string> problems;
    /// Whether dates were read year first (Canadian issuers and version 1) rather than month first.
    bool yearFirstDates = false;
    /// Whether this is the redacted form (see redacted()).
    bool isRedacted = false;

    /// The value of the first element with the ID; nil when absent.
    std::optional<std::string> element(std::string_view id) const;
    /// Whether the card has expired on the day: true after its expiry date, false up to and on it; nil without an
    /// expiry date.
    std::optional<bool> isExpiredOn(const CardDate& today) const;
    /// The holder's age in whole years on the day (a 29 February birthday falls on 1 March in other years); nil
    /// without a date of birth or for a day before it.
    std::optional<int32_t> ageOn(const CardDate& today) const;
    /// The mandatory DL/ID elements of the card's version that it lacks, in the standard's order (a name counts
    /// as present in any of the forms the versions use). Empty for a text that is not a card.
    std::vector<std::string> missingMandatoryElements() const;
    /// A copy safe for logs and terminals: names reduced to initials ("M."), the document number to its last 3
    /// characters ("***789"), the date of birth to its year; street, postal code and document discriminator
    /// removed; only elements that identify nobody keep their values (the others are dropped).
    CardData redacted() const;
};

} // namespace kp
