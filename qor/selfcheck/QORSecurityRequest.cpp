#include "selfcheck/QORSecurityRequest.h"

#include <algorithm>

#include "QORMessage/QORNotation.h"

namespace QOR {

std::string noteElement(std::string_view name, std::string_view children) {
    std::string text = "[\"";
    text += name;
    text += "\"";
    if (!children.empty()) (((text += ",[") += children) += "]");
    return text + "]";
}

std::string noteLeaf(std::string_view name, std::string_view value) {
    std::string text = "[\"";
    text += name;
    text += "\",";
    writeNotationText(value, text);
    return text + "]";
}

void noteShape(QORSecurityRequest& request, const char* shape) {
    if (std::find(request.shapes.begin(), request.shapes.end(), shape) == request.shapes.end())
        request.shapes.push_back(shape);
}

}  // namespace QOR
