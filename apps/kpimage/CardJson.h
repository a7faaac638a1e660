// SPDX-License-Identifier: MIT
// Identity-card data as the kpimage tool prints it: the card's JSON fields and a one-line description, redacted
// unless the user asked for the full data.
#pragma once

#include "Json.h"

#include <KPImage/KPCardData.h>

#include <ctime>
#include <string>

namespace kpcli {

/// Today's date on this machine's clock and time zone.
inline kp::CardDate cardToday() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
}

inline const char* cardSexName(kp::CardSex sex) {
    switch (sex) {
    case kp::CardSex::Male:
        return "male";
    case kp::CardSex::Female:
        return "female";
    case kp::CardSex::NotSpecified:
        return "not specified";
    default:
        return "";
    }
}

/// Adds "isCard","version","issuer","fields","expired","age","problems" of a parsed text to o. Expiry and age come
/// from the full data; the fields are redacted unless showData.
inline void addCardJson(JsonObject& o, const kp::CardData& card, const kp::CardDate& today, bool showData) {
    o.add("isCard", card.isCard);
    if (!card.isCard) {
        o.raw("version", "null").raw("issuer", "null").raw("fields", "{}").raw("expired", "null").raw("age", "null");
    } else {
        const kp::CardFields& f = showData ? card.fields : card.redacted().fields;
        JsonObject fields;
        auto text = [&fields](const char* key, const std::string& value) {
            if (!value.empty()) {
                fields.add(key, value);
            }
        };
        auto date = [&fields](const char* key, const std::optional<kp::CardDate>& value) {
            if (value) {
                fields.add(key, value->str());
            }
        };
        text("familyName", f.familyName);
        text("firstName", f.firstName);
        text("middleName", f.middleName);
        text("fullName", f.fullName);
        text("nameSuffix", f.nameSuffix);
        date("dateOfBirth", f.dateOfBirth);
        date("issueDate", f.issueDate);
        date("expiryDate", f.expiryDate);
        text("documentNumber", f.documentNumber);
        text("sex", cardSexName(f.sex));
        text("eyeColor", f.eyeColor);
        text("height", f.height ? f.height->str() : std::string());
        text("street", f.street);
        text("street2", f.street2);
        text("city", f.city);
        text("jurisdiction", f.jurisdiction);
        text("postalCode", f.postalCode);
        text("country", f.country);
        text("documentDiscriminator", f.documentDiscriminator);
        const auto expired = card.isExpiredOn(today);
        const auto age = card.ageOn(today);
        o.raw("version", card.version >= 0 ? std::to_string(card.version) : "null")
            .add("issuer", card.issuer)
            .raw("fields", fields.str())
            .raw("expired", expired ? (*expired ? "true" : "false") : "null")
            .raw("age", age ? std::to_string(*age) : "null");
    }
    std::string problems = "[";
    for (const auto& p : card.problems) {
        problems += (problems.size() > 1 ? ",\"" : "\"") + jsonEscape(p) + "\"";
    }
    o.raw("problems", problems + "]");
}

/// "MICHAEL SAMPLE, number T64235789", or "M. S., number ***789" redacted; "identity card" without a name.
inline std::string describeCard(const kp::CardData& card, bool showData) {
    const kp::CardFields& f = showData ? card.fields : card.redacted().fields;
    std::string who = f.firstName;
    who += who.empty() || f.familyName.empty() ? f.familyName : " " + f.familyName;
    return (who.empty() ? std::string("identity card") : who) +
           (f.documentNumber.empty() ? std::string() : ", number " + f.documentNumber);
}

} // namespace kpcli
