#include "agent/api/PrometheusText.h"

#include <charconv>

namespace QOR {
namespace {

constexpr std::string_view nameOf(PrometheusText::Type type) {
    switch (type) {
        case PrometheusText::Type::Counter:
            return "counter";
        case PrometheusText::Type::Gauge:
            return "gauge";
        case PrometheusText::Type::Histogram:
            break;
    }
    return "histogram";
}

void append(std::string& to, std::string_view text, bool quoted) {
    for (const char c : text) {
        if (c == '\\') to += "\\\\";
        if (c == '\n') to += "\\n";
        if (c == '"' && quoted) to += "\\\"";
        if (c != '\\' && c != '\n' && (c != '"' || !quoted)) to += c;
    }
}

}  // namespace

std::string prometheusNumber(double value) {
    char text[64];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

void PrometheusText::family(std::string_view name, Type type, std::string_view help) {
    m_name = name;
    m_text.append("# HELP ").append(name) += ' ';
    append(m_text, help, false);
    m_text.append("\n# TYPE ").append(name).append(" ").append(nameOf(type)) += '\n';
}

void PrometheusText::begin(std::string_view suffix, Labels labels) {
    m_text.append(m_name).append(suffix);
    char before = '{';
    for (const auto& [name, value] : labels) {
        m_text += before;
        m_text.append(name) += "=\"";
        append(m_text, value, true);
        m_text += '"';
        before = ',';
    }
    if (before == ',') m_text += '}';
    m_text += ' ';
}

void PrometheusText::sample(std::string_view suffix, std::uint64_t value, Labels labels) {
    begin(suffix, labels);
    m_text.append(std::to_string(value)) += '\n';
}

void PrometheusText::sample(std::string_view suffix, double value, Labels labels) {
    begin(suffix, labels);
    m_text.append(prometheusNumber(value)) += '\n';
}

}  // namespace QOR
