#include "QORQuery/QORStoredForm.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"

namespace QOR {
namespace {

std::string timeForm(const std::string& literal) {
    const auto time = parseTime(literal);
    if (!time) throw QORException(errBadRequest, "\"" + literal + "\" is not a date or time");
    return time2dbstr(*time);
}

std::string guidForm(const std::string& literal) {
    const auto guid = QORGUIDBase::parse(literal);
    if (!guid) throw QORException(errBadRequest, "\"" + literal + "\" is not a GUID");
    return guid->toString();
}

std::string integerForm(const std::string& literal) {
    return std::to_string(strToInt(literal));
}

std::string longForm(const std::string& literal) {
    return std::to_string(strToLonglong(literal));
}

std::string doubleForm(const std::string& literal) {
    return doubleToStr(strToDouble(literal));
}

struct Form {
    std::string_view type;
    std::string (*of)(const std::string& literal);
};

constexpr std::string_view timeType = "datetime";

/// Types of columns that are compared as something else than texts.
constexpr Form forms[] = {
    {timeType, timeForm},     {"uniqueidentifier", guidForm}, {"int", integerForm}, {"smallint", integerForm},
    {"tinyint", integerForm}, {"bit", integerForm},           {"bigint", longForm}, {"float", doubleForm},
    {"decimal", doubleForm},  {"double", doubleForm},
};

}  // namespace

std::string typeName(std::string_view type) {
    return toLowerText(type.substr(0, type.find_first_of(" (")));
}

std::string storedForm(std::string_view type, const std::string& literal) {
    const std::string name = typeName(type);
    const auto* const found =
        std::find_if(std::begin(forms), std::end(forms), [&](const Form& form) { return form.type == name; });
    return found == std::end(forms) ? literal : found->of(literal);
}

bool isTimeType(std::string_view type) {
    return typeName(type) == timeType;
}

}  // namespace QOR
