#include "rdbmspp/engine/ASValue.h"

#include <cmath>
#include <cstdint>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR {

ASValue ASValue::ofText(std::string_view text) {
    ASValue value;
    value.kind = Kind::Text;
    value.text = text;
    return value;
}

ASValue ASValue::ofInteger(std::int64_t number) {
    ASValue value;
    value.kind = Kind::Integer;
    value.integer = number;
    return value;
}

void ASValue::appendLiteral(std::string& out, const ASDialect& dialect) const {
    switch (kind) {
        case Kind::Null:
            out += "NULL";
            break;
        case Kind::Integer:
            // The smallest number has no literal of its own: its digits alone are one too many.
            if (integer == INT64_MIN) {
                out += "(-9223372036854775807 - 1)";
            } else {
                out += std::to_string(integer);
            }
            break;
        case Kind::Real:
            if (std::isfinite(real)) {
                out += doubleToStr(real);
            } else {
                out += std::isnan(real) ? "NULL" : real > 0 ? "9e999" : "-9e999";
            }
            break;
        case Kind::Text:
            appendQuoted(out, text, '\'');
            break;
        case Kind::Binary:
            out += dialect.binaryLiteral(text);
            break;
    }
}

void refuseNul(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) {
        throw AException("a text with a NUL byte cannot be sent to the database");
    }
}

void refuseUntakeable(std::string_view text, const ASDialect& dialect) {
    refuseNul(text);
    if (dialect.takesUtf8Alone && !isUtf8(text))
        throw AException(quoteText(text) + " is no UTF-8, which all texts of " + dialect.name + " are");
}

void appendQuoted(std::string& out, std::string_view text, char quote) {
    refuseNul(text);
    out += quote;
    std::size_t from = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != quote) continue;
        out.append(text, from, at + 1 - from);
        from = at;
    }
    out.append(text, from);
    out += quote;
}

}  // namespace QOR
