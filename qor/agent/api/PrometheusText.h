/// \file
/// Prometheus's text format, version 0.0.4.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace QOR {

/// Families come one after the other, each with its samples behind it. A value; used by one thread at a time.
class PrometheusText {
public:
    using Label = std::pair<std::string_view, std::string_view>;
    using Labels = std::initializer_list<Label>;

    static constexpr std::string_view contentType = "text/plain; version=0.0.4; charset=utf-8";

    enum class Type : std::uint8_t { Counter, Gauge, Histogram };

    /// \param name of a metric, valid until the next family
    void family(std::string_view name, Type type, std::string_view help);
    void sample(std::uint64_t value, Labels labels = {}) { sample("", value, labels); }
    void sample(double value, Labels labels = {}) { sample("", value, labels); }
    /// \param suffix of the family's name: "_sum"
    void sample(std::string_view suffix, std::uint64_t value, Labels labels);
    void sample(std::string_view suffix, double value, Labels labels);

    const std::string& text() const noexcept { return m_text; }

private:
    void begin(std::string_view suffix, Labels labels);

    std::string_view m_name;
    std::string m_text;
};

/// A number as the format spells it: in the fewest digits that tell it from others.
std::string prometheusNumber(double value);

}  // namespace QOR
